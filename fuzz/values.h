#pragma once

#include "kelvane/value.h"

namespace kelvane::fuzz {

/// Whether both hold the same, where two doubles that are not-a-number are the same. With `whole_seconds`
/// dates are compared without their fraction of a second.
[[nodiscard]] bool same(const Value& a, const Value& b, bool whole_seconds = false);

/// How many arrays and dictionaries stand one within the other, at most.
[[nodiscard]] std::size_t depthOf(const Value& value);
/// The objects in it, keys included.
[[nodiscard]] std::size_t objectsIn(const Value& value);

}  // namespace kelvane::fuzz
