#pragma once

// How C++ types are encoded in messages. A type's signature, writing and reading are defined once, here. The
// signature of a method is derived from its C++ arguments, so the two always agree.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kelvane/value.h"
#include "platform/wire/reader.h"
#include "platform/wire/writer.h"
#include "platform/xpc/endpoint.h"
#include "platform/xpc/error.h"

namespace kelvane::xpc {

/// The deepest nesting of arrays and dictionaries in a value that is sent: D-Bus allows 64 containers, and a
/// dictionary in a dictionary takes three (a variant, an array and an entry).
inline constexpr std::size_t most_nested = 20;

/// A value of any kind except nothing, as one D-Bus variant.
struct Anything {
  Value value;
};

/// `signature`; `write` writes one value, and leaves the writer with a fault when it cannot be sent (nested
/// too deep); `read` reads one, and leaves the reader with a fault when the message holds something else
/// (mismatched), something that no property list can hold (unusable), or too much (excessive).
template <class T>
struct Wire;

template <>
struct Wire<std::int32_t> {
  static constexpr const char* signature = "i";
  static void write(wire::Writer& out, std::int32_t number) { out.writeInt32(number); }
  static void read(wire::Reader& in, std::int32_t& number) { number = in.readInt32(); }
};
template <>
struct Wire<std::uint32_t> {
  static constexpr const char* signature = "u";
  static void write(wire::Writer& out, std::uint32_t number) { out.writeUint32(number); }
  static void read(wire::Reader& in, std::uint32_t& number) { number = in.readUint32(); }
};
template <>
struct Wire<std::string> {
  static constexpr const char* signature = "s";
  static void write(wire::Writer& out, const std::string& text) { out.writeString(text); }
  static void read(wire::Reader& in, std::string& text) { text = in.readString(); }
};
/// A descriptor that cannot be an endpoint is read as an empty endpoint: the handler
/// decides whether the caller gets an error.
template <>
struct Wire<Endpoint> {
  static constexpr const char* signature = "h";
  static void write(wire::Writer& out, const Endpoint& endpoint);
  static void read(wire::Reader& in, Endpoint& endpoint);
};
template <>
struct Wire<Dictionary> {
  static constexpr const char* signature = "a{sv}";
  static void write(wire::Writer& out, const Dictionary& dictionary);
  static void read(wire::Reader& in, Dictionary& dictionary);
};
template <>
struct Wire<std::optional<Dictionary>> {
  static constexpr const char* signature = "aa{sv}";
  static void write(wire::Writer& out, const std::optional<Dictionary>& dictionary);
  static void read(wire::Reader& in, std::optional<Dictionary>& dictionary);
};
template <>
struct Wire<Anything> {
  static constexpr const char* signature = "v";
  static void write(wire::Writer& out, const Anything& anything);
  static void read(wire::Reader& in, Anything& anything);
};
template <>
struct Wire<Value> {  // may be nothing
  static constexpr const char* signature = "av";
  static void write(wire::Writer& out, const Value& value);
  static void read(wire::Reader& in, Value& value);
};
template <>
struct Wire<Outcome> {
  static constexpr const char* signature = "";
};

}  // namespace kelvane::xpc
