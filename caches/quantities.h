#pragma once

// Ages and sizes as people write them in files: "30d", "64M".

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane::caches {

inline constexpr std::chrono::seconds least_age = std::chrono::hours(1);
inline constexpr std::chrono::seconds greatest_age = std::chrono::hours(24 * 3660);  // ten years

/// A whole number and s, m, h, d or w. Nothing when it is malformed or exceeds greatest_age.
[[nodiscard]] std::optional<std::chrono::seconds> parseAge(std::string_view text);
/// A whole number of bytes, or of K, M, G or T (powers of 1024; KiB and so on mean the same). Nothing when
/// it is malformed or exceeds 2^60.
[[nodiscard]] std::optional<std::uint64_t> parseSize(std::string_view text);

/// What parseAge reads, in the largest unit that divides it: "30d", "90m".
[[nodiscard]] std::string ageText(std::chrono::seconds age);

}  // namespace kelvane::caches
