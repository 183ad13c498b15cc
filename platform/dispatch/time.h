#pragma once

#include <cstdint>

namespace kelvane {

/// A moment on the clock's `now` scale, in nanoseconds. Any number is a valid absolute time: one that lies in
/// the past times out at once.
using dispatch_time_t = std::uint64_t;

inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;
inline constexpr dispatch_time_t DISPATCH_TIME_FOREVER = ~std::uint64_t{0};

/// `delta` nanoseconds after `when` (DISPATCH_TIME_NOW: the present moment). FOREVER stays FOREVER; a sum
/// that would pass either end of the scale stops just inside it.
[[nodiscard]] dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta);

/// Blocks the calling thread until `deadline`, at once when it is past.
void dispatch_sleep_until(dispatch_time_t deadline);

}  // namespace kelvane
