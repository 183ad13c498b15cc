#include "platform/foundation/footprint.h"

#include <numeric>
#include <variant>

namespace kelvane::foundation {
namespace {

/// What a value takes beside itself.
struct Behind {
  template <class Kept>
  std::size_t operator()(const Kept& /*in the value itself*/) const {
    return 0;
  }
  std::size_t operator()(const CopyOnWrite<std::string>& text) const { return text_footprint + text->size(); }
  std::size_t operator()(const Data& data) const { return text_footprint + data.bytes().size(); }
  std::size_t operator()(const Array& array) const {
    return std::accumulate(array.begin(), array.end(), container_footprint,
                           [](std::size_t sum, const Value& element) { return sum + footprint(element); });
  }
  std::size_t operator()(const Dictionary& dictionary) const {
    return std::accumulate(dictionary.begin(), dictionary.end(), container_footprint,
                           [](std::size_t sum, const auto& entry) {
                             return sum + entry_footprint + entry.first.size() + footprint(entry.second);
                           });
  }
};

}  // namespace

std::size_t footprint(const Value& value) { return sizeof value + std::visit(Behind(), value.held()); }

}  // namespace kelvane::foundation
