#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>

#include "platform/foundation/property_list_check.h"

namespace kelvane::foundation {
namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Reads all of `text` as an unsigned number; false when it is none or does not fit.
bool readUnsigned(std::string_view text, int base, std::uint64_t& number) {
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return problem == std::errc() && end == text.data() + text.size();
}

bool isInteger(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  std::uint64_t size = 0;
  return readUnsigned(text, hexadecimal ? 16 : 10, size) && (!negative || size <= std::uint64_t{1} << 63);
}

bool isReal(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  return problem == std::errc() && end == text.data() + text.size();
}

bool isDate(std::string_view text) {
  constexpr std::string_view shape = "0000-00-00T00:00:00Z";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == '0' ? !digit : text[i] != shape[i]) return false;
  }
  const auto field = [&](std::size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
  const int month = field(5);
  const int day = field(8);
  return month >= 1 && month <= 12 && day >= 1 && day <= 31 && field(11) <= 23 && field(14) <= 59 &&
         field(17) <= 60;
}

bool isBase64(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=' || blanks.find(c) != std::string_view::npos;
  });
}

bool isReference(std::string_view name) {
  constexpr std::array<std::string_view, 5> named = {"amp", "lt", "gt", "quot", "apos"};
  if (!name.starts_with('#')) return std::find(named.begin(), named.end(), name) != named.end();
  const bool hexadecimal = name.starts_with("#x");
  std::uint64_t point = 0;
  if (!readUnsigned(name.substr(hexadecimal ? 2 : 1), hexadecimal ? 16 : 10, point)) return false;
  return point != 0 && point <= 0x10ffff && (point < 0xd800 || point > 0xdfff);
}

}  // namespace

std::optional<std::string> checkLeafText(std::string_view element, std::string_view text) {
  text = trimmed(text);
  const bool right = element == "integer" ? isInteger(text)
                     : element == "real"  ? isReal(text)
                     : element == "date"  ? isDate(text)
                     : element == "data"  ? isBase64(text)
                                          : true;
  if (right) return std::nullopt;
  return fmt::format("<{}> holds \"{}\", which is none or does not fit", element, text.substr(0, 40));
}

std::optional<std::string> checkEntities(std::string_view text) {
  for (std::size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&', at + 1)) {
    const std::size_t end = text.find(';', at);
    const std::string_view name = text.substr(at + 1, std::min<std::size_t>(end - at - 1, 16));
    if (end == std::string_view::npos || !isReference(name))
      return fmt::format("the unknown reference \"&{}\"", name);
  }
  return std::nullopt;
}

}  // namespace kelvane::foundation
