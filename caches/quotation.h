#pragma once

// Quotes texts from files in messages for people.

#include <string>

namespace kelvane::caches {

/// In quotation marks, truncated, and without control characters.
[[nodiscard]] inline std::string inQuotes(const std::string& text) {
  constexpr std::size_t longest = 200;
  std::string result = "\"";
  for (const char c : text.substr(0, longest)) {
    const auto byte = static_cast<unsigned char>(c);
    result += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  return result + (text.size() > longest ? "...\"" : "\"");
}

}  // namespace kelvane::caches
