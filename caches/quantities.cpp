#include "caches/quantities.h"

#include <array>
#include <charconv>

namespace kelvane::caches {
namespace {

struct AgeUnit {
  char letter;
  std::int64_t seconds;
};
constexpr std::array<AgeUnit, 5> age_units{{{'w', 604800}, {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}}};
constexpr std::uint64_t greatest_size = std::uint64_t{1} << 60;

/// Removes the number at the beginning of the text and returns it.
std::optional<std::uint64_t> takeNumber(std::string_view& text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

std::optional<std::chrono::seconds> parseAge(std::string_view text) {
  const std::optional<std::uint64_t> number = takeNumber(text);
  if (!number || text.size() != 1) return std::nullopt;
  for (const AgeUnit& unit : age_units) {
    if (unit.letter != text.front()) continue;
    if (*number > static_cast<std::uint64_t>(greatest_age.count() / unit.seconds)) return std::nullopt;
    return std::chrono::seconds(static_cast<std::int64_t>(*number) * unit.seconds);
  }
  return std::nullopt;
}

std::optional<std::uint64_t> parseSize(std::string_view text) {
  const std::optional<std::uint64_t> number = takeNumber(text);
  if (!number) return std::nullopt;
  std::uint64_t unit = 1;
  if (!text.empty()) {
    constexpr std::string_view letters = "KMGT";
    const std::size_t power = letters.find(text.front());
    if (power == std::string_view::npos || (text.size() > 1 && text.substr(1) != "iB")) return std::nullopt;
    unit = std::uint64_t{1024} << (10 * power);
  }
  return *number <= greatest_size / unit ? std::optional(*number * unit) : std::nullopt;
}

std::string ageText(std::chrono::seconds age) {
  for (const AgeUnit& unit : age_units) {
    if (unit.letter != 'w' && age.count() % unit.seconds == 0) {
      return std::to_string(age.count() / unit.seconds) + unit.letter;
    }
  }
  return {};
}

}  // namespace kelvane::caches
