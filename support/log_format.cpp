// The text of a log line. The library formats one placeholder at a time, and only what fits it, so that
// nothing a text or an argument holds can make it throw.

#include <fmt/printf.h>
#include <cstring>

#include "support/log.h"

namespace kelvane::logging {
namespace {

/// "%-08.3lld" taken apart.
struct Placeholder {
  std::string adjustment;  // flags, width and precision: "-08.3"
  char conversion = '\0';  // '\0': the text ends before the placeholder does
};

Placeholder readPlaceholder(const char*& text) {
  Placeholder result;
  while (*text != '\0' && std::strchr("-+ #0123456789.", *text) != nullptr) result.adjustment += *text++;
  while (*text != '\0' && std::strchr("hlqLjzt", *text) != nullptr) ++text;
  result.conversion = *text;
  if (*text != '\0') ++text;
  return result;
}

std::string address(const void* pointer) {
  return fmt::format("{:#x}", reinterpret_cast<std::uintptr_t>(pointer));
}

/// What the argument looks like where nothing says how it should.
struct Plain {
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(std::uint64_t number) const { return std::to_string(number); }
  std::string operator()(double number) const { return fmt::format("{}", number); }
  std::string operator()(const void* pointer) const { return address(pointer); }
  std::string operator()(const std::string& text) const { return text; }
};

template <class T>
std::string adjusted(const Placeholder& placeholder, char conversion, const T& argument) {
  if (placeholder.adjustment.empty() && std::is_same_v<T, std::string>) return Plain()(argument);
  try {
    return fmt::sprintf("%" + placeholder.adjustment + conversion, argument);
  } catch (const std::exception&) {  // a width that is none, and the like
    return Plain()(argument);
  }
}

/// The number as the integer the conversion wants, signed or not; nothing when it is no integer.
template <class To>
std::optional<To> integer(const Argument& argument) {
  if (const auto* number = std::get_if<std::int64_t>(&argument)) return static_cast<To>(*number);
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) return static_cast<To>(*number);
  return std::nullopt;
}

std::optional<double> real(const Argument& argument) {
  if (const auto* number = std::get_if<double>(&argument)) return *number;
  if (const auto* number = std::get_if<std::int64_t>(&argument)) return static_cast<double>(*number);
  if (const auto* number = std::get_if<std::uint64_t>(&argument)) return static_cast<double>(*number);
  return std::nullopt;
}

std::string fill(const Placeholder& placeholder, const Argument& argument) {
  const char conversion = placeholder.conversion;
  switch (conversion) {
    case 'd':
    case 'i':
      if (const auto number = integer<std::int64_t>(argument)) return adjusted(placeholder, 'd', *number);
      break;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      if (const auto number = integer<std::uint64_t>(argument))
        return adjusted(placeholder, conversion, *number);
      break;
    case 'f':
    case 'e':
    case 'g':
      if (const auto number = real(argument)) return adjusted(placeholder, conversion, *number);
      break;
    default:
      break;
  }
  return adjusted(placeholder, 's', std::visit(Plain(), argument));
}

template <class Strings>
std::string list(const char* open, const Strings& strings, const char* close) {
  return fmt::format("{}{}{}", open, fmt::join(strings, ", "), close);
}

}  // namespace

std::string shortened(std::string_view text) {
  constexpr std::size_t longest = std::size_t{24} << 10;  // leaves room for the rest of the line
  std::string kept(text.substr(0, longest));
  if (kept.size() < text.size()) kept += fmt::format("... ({} bytes)", text.size());
  return kept;
}

Argument argument(const std::set<std::string>& strings) { return list("{(", strings, ")}"); }
Argument argument(const std::vector<std::string>& strings) { return list("(", strings, ")"); }

std::string format(const char* format, std::vector<Argument> arguments) {
  static const Argument missing = std::string("(missing)");
  std::string line;
  std::size_t used = 0;
  while (*format != '\0') {
    if (*format != '%') {
      line += *format++;
      continue;
    }
    ++format;
    const Placeholder placeholder = readPlaceholder(format);
    if (placeholder.conversion == '%' || placeholder.conversion == '\0') {
      line += '%';
    } else {
      line += fill(placeholder, used < arguments.size() ? arguments[used] : missing);
      ++used;
    }
  }
  return line;
}

}  // namespace kelvane::logging
