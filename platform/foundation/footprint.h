#pragma once

#include <cstddef>

#include "kelvane/value.h"

namespace kelvane::foundation {

/// How much memory a value takes, in bytes, estimated from the sizes of its allocations; memory shared with
/// copies counts in full. The time is proportional to the number of values in it, independent of the length
/// of text and data. Recursive: for values that came from a peer or a file, whose depth is bounded.
[[nodiscard]] std::size_t footprint(const Value& value);

/// Whether that exceeds `bytes`. Stops counting as soon as it does.
[[nodiscard]] bool footprintExceeds(const Value& value, std::size_t bytes);

/// The parts of the estimate, for code that counts while it builds a value.
inline constexpr std::size_t allocation_footprint = 16;  // what the heap adds
inline constexpr std::size_t text_footprint = 3 * allocation_footprint + 32;
inline constexpr std::size_t container_footprint = allocation_footprint + 64;
inline constexpr std::size_t entry_footprint = allocation_footprint + 96;  // of a dictionary, with its key

}  // namespace kelvane::foundation
