#include "platform/foundation/identical.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace kelvane::foundation {
namespace {

/// Two collections of which the first elements are one object are one collection.
template <class Collection>
bool share(const Collection& a, const Collection& b) {
  return a.empty() || &*a.begin() == &*b.begin();
}

bool identicalArrays(const Array& a, const Array& b) {
  if (a.size() != b.size()) return false;
  return share(a, b) || std::equal(a.begin(), a.end(), b.begin(), identical);
}

bool identicalDictionaries(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  return share(a, b) || std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
           return x.first == y.first && identical(x.second, y.second);
         });
}

}  // namespace

bool identical(const Value& a, const Value& b) {
  if (a.held().index() != b.held().index()) return false;
  if (const Array* array = a.array()) return identicalArrays(*array, *b.array());
  if (const Dictionary* dictionary = a.dictionary())
    return identicalDictionaries(*dictionary, *b.dictionary());
  if (const double* number = std::get_if<double>(&a.held())) {
    return std::bit_cast<std::uint64_t>(*number) == std::bit_cast<std::uint64_t>(b.doubleValue());
  }
  return a == b;
}

}  // namespace kelvane::foundation
