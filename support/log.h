#pragma once

// The log. A line has a level: 5 for routine tracing, 3 for errors and notable events.
//
//   KVLog(5, "%s scanning %@", "init", directory);
//
// The first "%s" is the name of the method that speaks, as remote callers would spell it. Beyond what printf
// knows, "%@" takes a Value, a Dictionary or Array, a string, a set of strings, a vector of strings, an error
// with `description()`, or nullptr, and prints its description ("(null)" for nothing). Length modifiers are
// accepted and ignored. Arguments are evaluated only when the line will be written. Any thread.

#include <concepts>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "kelvane/value.h"

namespace kelvane {

/// Where lines go, and up to which level. Both members are called on any thread.
class LogHandle {
 public:
  virtual ~LogHandle() = default;
  [[nodiscard]] virtual int threshold() const = 0;
  /// `line` is finished: one line without its end.
  virtual void write(int level, std::string_view line) = 0;
};

/// The process's log handle: made on first use from KELVANE_LOG_LEVEL (0 to 5; 3 when absent or not a number)
/// and from what standard error is connected to. Null after `setLogHandle(nullptr)`.
[[nodiscard]] LogHandle* getLogHandle();
/// Replaces the handle, which must outlive its use; null for none: level-5 lines then go to standard error.
void setLogHandle(LogHandle* handle);

/// A line of level 5 is written when there is no handle or its threshold is at least 5; a line of any other
/// level only when there is a handle and its threshold is at least that level.
[[nodiscard]] bool logIsEnabled(int level);

namespace logging {

using Argument = std::variant<std::int64_t, std::uint64_t, double, const void*, std::string>;

/// Text from a peer may be as long as a message. Only its beginning is formatted into the line.
[[nodiscard]] std::string shortened(std::string_view text);

inline Argument argument(const char* text) { return shortened(text == nullptr ? "(null)" : text); }
inline Argument argument(std::string_view text) { return shortened(text); }
inline Argument argument(const std::string& text) { return shortened(text); }
inline Argument argument(std::nullptr_t) { return std::string("(null)"); }
inline Argument argument(const void* address) { return address; }
inline Argument argument(const Value& value) {
  return shortened(value.string() != nullptr ? *value.string() : value.description());
}
inline Argument argument(const Dictionary& dictionary) { return argument(Value(dictionary)); }
inline Argument argument(const Array& array) { return argument(Value(array)); }
Argument argument(const std::set<std::string>& strings);
Argument argument(const std::vector<std::string>& strings);
template <class T>
requires std::is_arithmetic_v<T> Argument argument(T number) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<double>(number);
  } else if constexpr (std::is_signed_v<T>) {
    return static_cast<std::int64_t>(number);
  } else {
    return static_cast<std::uint64_t>(number);
  }
}
template <class T>
requires requires(const T& t) {
  { t.description() } -> std::convertible_to<std::string>;
} &&(!std::is_same_v<T, Value>)Argument argument(const T& describable) {
  return std::string(describable.description());
}
template <class T>
Argument argument(const std::optional<T>& optional) {
  return optional ? argument(*optional) : argument(nullptr);
}

[[nodiscard]] std::string format(const char* format, std::vector<Argument> arguments);
void write(int level, const std::string& line);

template <class... Arguments>
void line(int level, const char* text, const Arguments&... arguments) {
  write(level, format(text, {argument(arguments)...}));
}

}  // namespace logging
}  // namespace kelvane

// A macro, since arguments must not be evaluated for a line that is not written.
#define KVLog(level, ...)                                                             \
  do {                                                                                \
    if (::kelvane::logIsEnabled(level)) ::kelvane::logging::line(level, __VA_ARGS__); \
  } while (false)
