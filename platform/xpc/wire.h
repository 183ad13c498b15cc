#pragma once

// How C++ types travel in messages. A type's signature, writing and reading stand here once; the signature of
// a method is derived from its C++ arguments, so that the two cannot disagree.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kelvane/value.h"
#include "platform/xpc/endpoint.h"
#include "platform/xpc/error.h"

struct sd_bus_message;

namespace kelvane::xpc {

/// So many arrays and dictionaries may stand one within the other in a value that travels. Deeper than any
/// property list in use, and far above the end of any thread's stack.
inline constexpr std::size_t most_nested = 31;

/// A value of any kind, but never nothing, as one D-Bus variant.
struct Anything {
  Value value;
};

/// `signature`; `write` returns a negative errno-style code when the value cannot travel (nested too deep);
/// `read` likewise when the message holds something else or something that no property list can hold.
template <class T>
struct Wire;

template <>
struct Wire<std::int32_t> {
  static constexpr const char* signature = "i";
  static int write(sd_bus_message* message, std::int32_t number);
  static int read(sd_bus_message* message, std::int32_t& number);
};
template <>
struct Wire<std::uint32_t> {
  static constexpr const char* signature = "u";
  static int write(sd_bus_message* message, std::uint32_t number);
  static int read(sd_bus_message* message, std::uint32_t& number);
};
template <>
struct Wire<std::string> {
  static constexpr const char* signature = "s";
  static int write(sd_bus_message* message, const std::string& text);
  static int read(sd_bus_message* message, std::string& text);
};
template <>
struct Wire<Endpoint> {
  static constexpr const char* signature = "h";
  static int write(sd_bus_message* message, const Endpoint& endpoint);
  static int read(sd_bus_message* message, Endpoint& endpoint);
};
template <>
struct Wire<Dictionary> {
  static constexpr const char* signature = "a{sv}";
  static int write(sd_bus_message* message, const Dictionary& dictionary);
  static int read(sd_bus_message* message, Dictionary& dictionary);
};
template <>
struct Wire<std::optional<Dictionary>> {
  static constexpr const char* signature = "aa{sv}";
  static int write(sd_bus_message* message, const std::optional<Dictionary>& dictionary);
  static int read(sd_bus_message* message, std::optional<Dictionary>& dictionary);
};
template <>
struct Wire<Anything> {
  static constexpr const char* signature = "v";
  static int write(sd_bus_message* message, const Anything& anything);
  static int read(sd_bus_message* message, Anything& anything);
};
template <>
struct Wire<Value> {  // may be nothing
  static constexpr const char* signature = "av";
  static int write(sd_bus_message* message, const Value& value);
  static int read(sd_bus_message* message, Value& value);
};
template <>
struct Wire<Outcome> {
  static constexpr const char* signature = "";
};

}  // namespace kelvane::xpc
