#pragma once

// The calendar of this program, moved: everything that asks time(2) sees it, in workers as well. The kernel
// stamps files with the real time, so what was just made is as old as the calendar was moved on.

#include <ctime>

namespace kelvane::caches::tests {

inline constexpr std::time_t hour = 3600;
inline constexpr std::time_t day = 24 * hour;
/// How far the calendar is ahead; files cannot be older than that.
inline constexpr std::time_t ahead = 400 * day;

}  // namespace kelvane::caches::tests
