#pragma once

#include <ctime>

namespace kelvane::caches::tests {

inline constexpr std::time_t hour = 3600;
inline constexpr std::time_t day = 24 * hour;
/// How far the clock for ages is ahead. Files cannot be older than that, because the kernel stamps them with
/// the present.
inline constexpr std::time_t ahead = 400 * day;

}  // namespace kelvane::caches::tests
