#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kelvane::wire {

inline constexpr bool machine_is_big_endian = std::endian::native == std::endian::big;

inline std::uint8_t byteSwapped(std::uint8_t number) { return number; }
inline std::uint16_t byteSwapped(std::uint16_t number) { return __builtin_bswap16(number); }
inline std::uint32_t byteSwapped(std::uint32_t number) { return __builtin_bswap32(number); }
inline std::uint64_t byteSwapped(std::uint64_t number) { return __builtin_bswap64(number); }

/// An unsigned number at an address of any alignment; `swapped` if it is not in the machine's byte order.
template <class Unsigned>
Unsigned loadUnsigned(const std::byte* from, bool swapped) {
  Unsigned number = 0;
  std::memcpy(&number, from, sizeof number);
  return swapped ? byteSwapped(number) : number;
}

/// Rounds `position` up to a multiple of the alignment: 1, 2, 4 or 8.
inline std::size_t aligned(std::size_t position, std::size_t alignment) {
  return (position + alignment - 1) & ~(alignment - 1);
}

}  // namespace kelvane::wire
