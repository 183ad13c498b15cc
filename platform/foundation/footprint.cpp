#include "platform/foundation/footprint.h"

#include <algorithm>
#include <limits>
#include <variant>

namespace kelvane::foundation {
namespace {

/// Adds up, and stops when the sum is above `most`.
class Sum {
 public:
  explicit Sum(std::size_t most) : most_(most) {}
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

  /// Whether to go on.
  bool add(const Value& value) {
    bytes_ += sizeof value;
    std::visit([this](const auto& kept) { (*this)(kept); }, value.held());
    return bytes_ <= most_;
  }

  // What a value takes beside itself.
  template <class Kept>
  void operator()(const Kept& /*in the value itself*/) {}
  void operator()(const CopyOnWrite<std::string>& text) { bytes_ += text_footprint + text->size(); }
  void operator()(const Data& data) { bytes_ += text_footprint + data.bytes().size(); }
  void operator()(const Array& array) {
    bytes_ += container_footprint;
    static_cast<void>(
        std::all_of(array.begin(), array.end(), [this](const Value& element) { return add(element); }));
  }
  void operator()(const Dictionary& dictionary) {
    bytes_ += container_footprint;
    static_cast<void>(std::all_of(dictionary.begin(), dictionary.end(), [this](const auto& entry) {
      bytes_ += entry_footprint + entry.first.size();
      return add(entry.second);
    }));
  }

 private:
  const std::size_t most_;
  std::size_t bytes_ = 0;
};

}  // namespace

std::size_t footprint(const Value& value) {
  Sum sum(std::numeric_limits<std::size_t>::max());
  sum.add(value);
  return sum.bytes();
}

bool footprintExceeds(const Value& value, std::size_t bytes) { return !Sum(bytes).add(value); }

}  // namespace kelvane::foundation
