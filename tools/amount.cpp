#include "tools/amount.h"

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>

namespace kelvane::tools {
namespace {

constexpr std::string_view letters = "KMGTP";

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

/// How many bytes the unit is, nothing when it is none.
std::optional<std::uint64_t> unitOf(std::string_view text) {
  std::string unit;
  for (const char c : text) unit += upper(c);
  if (unit.empty() || unit == "B") return 1;
  const std::size_t place = letters.find(unit.front());
  const std::string_view rest = std::string_view(unit).substr(1);
  if (place == std::string_view::npos || !(rest.empty() || rest == "B" || rest == "IB")) return std::nullopt;
  const std::uint64_t base = rest == "B" ? 1000 : 1024;
  std::uint64_t bytes = 1;
  for (std::size_t i = 0; i <= place; ++i) bytes *= base;
  return bytes;
}

NoAmount noAmount(std::string_view text, std::string_view why) {
  return {fmt::format("\"{}\" is no amount: {}; say it as in 500M, 1.5GiB or 4096", text, why)};
}

/// Whole numbers are kept to the byte, whatever their size.
std::optional<std::uint64_t> product(std::string_view number, std::uint64_t unit) {
  std::uint64_t whole = 0;
  const char* const end = number.data() + number.size();
  if (const auto read = std::from_chars(number.data(), end, whole); read.ptr == end) {
    std::uint64_t bytes = 0;
    if (read.ec != std::errc() || __builtin_mul_overflow(whole, unit, &bytes)) return std::nullopt;
    return bytes;
  }
  double fraction = 0;
  if (std::from_chars(number.data(), end, fraction, std::chars_format::fixed).ec != std::errc())
    return std::nullopt;
  fraction *= static_cast<double>(unit);
  if (!(fraction < 0x1p64)) return std::nullopt;
  return static_cast<std::uint64_t>(fraction);
}

}  // namespace

std::variant<std::uint64_t, NoAmount> parseAmount(std::string_view text) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  const std::string_view number = text.substr(0, digits);
  if (number.empty() || number.find_first_of("0123456789") == std::string_view::npos ||
      std::count(number.begin(), number.end(), '.') > 1) {
    return noAmount(text, "it does not begin with a number");
  }
  std::string_view suffix = text.substr(digits);
  if (suffix.size() > 1 && suffix.front() == ' ') suffix.remove_prefix(1);
  const std::optional<std::uint64_t> unit = unitOf(suffix);
  if (!unit) return noAmount(text, fmt::format("\"{}\" is no unit", suffix));
  const std::optional<std::uint64_t> bytes = product(number, *unit);
  if (!bytes) return noAmount(text, "it is more than any volume holds");
  if (*bytes == 0) return noAmount(text, "it is less than one byte");
  return *bytes;
}

std::variant<double, NoAmount> parseSeconds(std::string_view text) {
  constexpr double least = 0.1;
  constexpr double most = 3600;
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  if (read.ec == std::errc() && read.ptr == end && seconds >= least && seconds <= most) return seconds;
  return NoAmount{fmt::format("\"{}\" is no number of seconds from {:g} to {:g}; say it as in 2 or 0.5", text,
                              least, most)};
}

std::string inUnits(std::uint64_t bytes) {
  constexpr std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double amount = static_cast<double>(bytes) / 1024;
  const auto* unit = units.begin();
  // What would be rounded to 1024.0 is one of the next unit.
  for (; amount >= 1023.95 && unit + 1 != units.end(); ++unit) amount /= 1024;
  return fmt::format("{:.1f} {}", amount, *unit);
}

std::string inUnitsSigned(std::int64_t bytes) {
  if (bytes >= 0) return inUnits(static_cast<std::uint64_t>(bytes));
  return "-" + inUnits(-static_cast<std::uint64_t>(bytes));
}

std::string inTime(double seconds) {
  constexpr double hour = 3600;
  seconds = std::max(seconds, 0.0);
  if (seconds < 0.9995) return fmt::format("{:.0f} ms", seconds * 1000);
  if (seconds < 59.95) return fmt::format("{:.1f} s", seconds);
  const auto whole = static_cast<std::uint64_t>(std::min(std::round(seconds), 1e15));
  if (seconds < hour) return fmt::format("{} min {} s", whole / 60, whole % 60);
  return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
}

}  // namespace kelvane::tools
