#include "support/space_thresholds.h"

#include <fmt/format.h>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>

namespace kelvane {
namespace {

/// The two parts of a threshold, as far as they are said.
struct Parts {
  std::optional<double> fraction;
  std::optional<double> bytes;
};

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// Takes a number of plain decimal form off the front of the text.
std::optional<double> takeNumber(std::string_view& text) {
  double number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || text.front() == '-' || !std::isfinite(number)) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

std::optional<double> unitOf(std::string_view text) {
  constexpr std::string_view letters = "KMGT";
  if (text.empty()) return 1;
  const auto place = letters.find(text.front());
  if (text.size() != 1 || place == std::string_view::npos) return std::nullopt;
  return std::exp2(10.0 * (static_cast<double>(place) + 1));
}

/// Reads one part into `parts`; what is wrong with it, or nothing.
const char* takePart(std::string_view part, Parts& parts) {
  const std::optional<double> number = part.empty() ? std::nullopt : takeNumber(part);
  if (!number) return "it is not a number";
  if (part == "%") {
    if (*number > 100) return "a volume has no more than 100 %";
    if (parts.fraction) return "it says two parts of the volume";
    parts.fraction = *number / 100;
    return nullptr;
  }
  const std::optional<double> unit = unitOf(part);
  if (!unit) return "its unit is none of %, K, M, G and T";
  if (parts.bytes) return "it says two amounts";
  parts.bytes = *number * *unit;
  return *parts.bytes < 0x1p63 ? nullptr : "it is more than any volume holds";
}

std::optional<ThresholdProblem> takeParts(const char* variable, std::string_view value, Parts& parts) {
  std::string_view rest = value;
  while (true) {
    const std::size_t comma = rest.find(',');
    const std::string_view part = trimmed(rest.substr(0, comma));
    if (const char* problem = takePart(part, parts)) {
      return ThresholdProblem{fmt::format(
          "{} is \"{}\", and of \"{}\" {}; say a part of the volume, an amount, or both, as in \"8%,1G\"",
          variable, value, part, problem)};
    }
    if (comma == std::string_view::npos) return std::nullopt;
    rest.remove_prefix(comma + 1);
  }
}

/// A part that is not said never decides.
void put(const Parts& parts, SpaceLimit& limit) {
  limit.of_bytes_total = parts.fraction.value_or(1);
  limit.bytes =
      parts.bytes ? static_cast<std::uint64_t>(*parts.bytes) : std::numeric_limits<std::uint64_t>::max();
  if (limit.of_bytes_total == 0 || limit.bytes == 0) limit.of_files_total = 0;
}

Parts partsOf(const SpaceLimit& limit) { return {limit.of_bytes_total, static_cast<double>(limit.bytes)}; }

Parts half(const Parts& parts) {
  const auto halved = [](double part) { return part / 2; };
  return {parts.fraction ? std::optional(halved(*parts.fraction)) : std::nullopt,
          parts.bytes ? std::optional(halved(*parts.bytes)) : std::nullopt};
}

bool isAbove(const Parts& a, const Parts& b) {
  return (a.fraction && b.fraction && *a.fraction > *b.fraction) ||
         (a.bytes && b.bytes && *a.bytes > *b.bytes);
}

}  // namespace

std::variant<SpaceThresholds, ThresholdProblem> parseSpaceThresholds(const char* low, const char* very_low) {
  SpaceThresholds thresholds;
  Parts low_parts;
  Parts very_low_parts;
  if (low != nullptr) {
    if (auto problem = takeParts(low_space_variable, low, low_parts)) return *problem;
    put(low_parts, thresholds.low);
    put(half(low_parts), thresholds.very_low);
  } else {
    low_parts = partsOf(thresholds.low);
  }
  if (very_low != nullptr) {
    if (auto problem = takeParts(very_low_space_variable, very_low, very_low_parts)) return *problem;
    if (isAbove(very_low_parts, low_parts)) {
      return ThresholdProblem{fmt::format(
          "{} is \"{}\", which is more than {}, {}; make it less, or that more", very_low_space_variable,
          very_low, low_space_variable, low != nullptr ? fmt::format("\"{}\"", low) : "10%,2G by default")};
    }
    put(very_low_parts, thresholds.very_low);
  }
  return thresholds;
}

std::variant<SpaceThresholds, ThresholdProblem> spaceThresholdsOfEnvironment() {
  return parseSpaceThresholds(std::getenv(low_space_variable), std::getenv(very_low_space_variable));
}

}  // namespace kelvane
