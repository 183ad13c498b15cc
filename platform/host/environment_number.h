#pragma once

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace kelvane {

/// The number in an environment variable: only decimal digits, below 2^64. Nothing for any other text.
[[nodiscard]] inline std::optional<std::uint64_t> environmentNumber(const char* variable) {
  const char* const value = std::getenv(variable);
  if (value == nullptr) return std::nullopt;
  const std::string_view text = value;
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace kelvane
