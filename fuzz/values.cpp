#include "fuzz/values.h"

#include <algorithm>
#include <cmath>

namespace kelvane::fuzz {
namespace {

constexpr std::int64_t second = 1'000'000;

std::int64_t wholeSeconds(Date date) {
  const std::int64_t seconds = date.microseconds / second;
  return date.microseconds % second < 0 ? seconds - 1 : seconds;
}

bool isNotANumber(const Value& value) {
  const double* number = std::get_if<double>(&value.held());
  return number != nullptr && std::isnan(*number);
}

}  // namespace

bool same(const Value& a, const Value& b, bool whole_seconds) {
  const auto both = [whole_seconds](const Value& x, const Value& y) { return same(x, y, whole_seconds); };
  if (a.array() != nullptr && b.array() != nullptr)
    return std::equal(a.array()->begin(), a.array()->end(), b.array()->begin(), b.array()->end(), both);
  if (a.dictionary() != nullptr && b.dictionary() != nullptr) {
    return std::equal(
        a.dictionary()->begin(), a.dictionary()->end(), b.dictionary()->begin(), b.dictionary()->end(),
        [&](const auto& x, const auto& y) { return x.first == y.first && both(x.second, y.second); });
  }
  if (whole_seconds && a.date() != nullptr && b.date() != nullptr)
    return wholeSeconds(*a.date()) == wholeSeconds(*b.date());
  return a == b || (isNotANumber(a) && isNotANumber(b));
}

std::size_t depthOf(const Value& value) {
  std::size_t below = 0;
  if (const Array* array = value.array()) {
    for (const Value& element : *array) below = std::max(below, depthOf(element));
    return below + 1;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& entry : *dictionary) below = std::max(below, depthOf(entry.second));
    return below + 1;
  }
  return 0;
}

std::size_t objectsIn(const Value& value) {
  std::size_t count = 1;
  if (const Array* array = value.array()) {
    for (const Value& element : *array) count += objectsIn(element);
  } else if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& entry : *dictionary) count += 1 + objectsIn(entry.second);
  }
  return count;
}

}  // namespace kelvane::fuzz
