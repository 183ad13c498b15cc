#pragma once

#include <cstddef>

#include "kelvane/value.h"

namespace kelvane::foundation {

/// How much memory a value takes, in bytes; what it shares with copies of it counts in full. An estimate from
/// the sizes of what is allocated. Takes time in proportion to the number of values in it, whatever the size
/// of texts and data. Recursive: for values that came from a peer or a file, whose depth is bounded.
[[nodiscard]] std::size_t footprint(const Value& value);

/// Whether that is more than `bytes`. Looks at so many values only as can be in these.
[[nodiscard]] bool footprintExceeds(const Value& value, std::size_t bytes);

/// The parts of the estimate, for whoever counts while building.
inline constexpr std::size_t allocation_footprint = 16;  // what the heap adds
inline constexpr std::size_t text_footprint = 3 * allocation_footprint + 32;
inline constexpr std::size_t container_footprint = allocation_footprint + 64;
inline constexpr std::size_t entry_footprint = allocation_footprint + 96;  // of a dictionary, with its key

}  // namespace kelvane::foundation
