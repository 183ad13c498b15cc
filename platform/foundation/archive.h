#pragma once

// The compact form in which values are stored.
//
// An archive is the bytes "KVA", a version byte (1), and one object. An object is a tag byte and its content:
//
//   0  nothing (as the root only)      5  string: length, bytes
//   1  false                           6  data: length, bytes
//   2  true                            7  date: signed number, microseconds since 1970
//   3  signed number                   8  array: count, objects
//   4  unsigned number                 9  dictionary: count, then key length, key bytes, object for each
//                                     10  double: 8 bytes, IEEE 754, little-endian
//
// Lengths, counts and unsigned numbers are 7 bits to a byte, the lowest first, the high bit set on all but
// the last; signed numbers are such with the sign moved to the lowest bit (0, -1, 1, -2 ... are 0, 1, 2, 3
// ...). Keys ascend. Every value has one archive, so equal bytes mean identical values.

#include <cstdint>
#include <span>

#include "kelvane/value.h"

namespace kelvane {

/// Arrays and dictionaries inside one another.
inline constexpr std::size_t archive_depth_limit = 64;

/// The archive of `value`; empty when it nests deeper than the limit. Strings are archived as the bytes they
/// are.
[[nodiscard]] Data archivedData(const Value& value);

/// The value that `bytes` archive; nothing when they are no archive: hostile bytes cost time and memory in
/// proportion to their number and no more. Both functions are callable on any thread and throw nothing.
[[nodiscard]] Value unarchivedValue(std::span<const std::uint8_t> bytes);
[[nodiscard]] inline Value unarchivedValue(const Data& data) {
  return unarchivedValue(std::span<const std::uint8_t>(data.bytes()));
}

}  // namespace kelvane
