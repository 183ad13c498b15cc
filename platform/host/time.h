#pragma once

#include <cstdint>

#include "kelvane/value.h"

namespace kelvane {

/// The host clock's ticks, counted on the process's clock.
[[nodiscard]] std::uint64_t mach_absolute_time();

/// Nanoseconds per tick, as a fraction.
struct mach_timebase_info_data_t {
  std::uint32_t numer;
  std::uint32_t denom;
};
using kern_return_t = int;
inline constexpr kern_return_t KERN_SUCCESS = 0;
kern_return_t mach_timebase_info(mach_timebase_info_data_t* info);

/// Blocks the calling thread for so long on the process's clock.
void usleep(std::uint32_t microseconds);

/// The present moment by the calendar.
[[nodiscard]] Date currentDate();

}  // namespace kelvane
