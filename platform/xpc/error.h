#pragma once

#include <string>

namespace kelvane::xpc {

/// Why a message or a connection failed: a D-Bus error name and a text for people.
struct Error {
  std::string name;
  std::string message;

  [[nodiscard]] std::string description() const { return name + ": " + message; }
};

inline constexpr const char* error_disconnected = "org.freedesktop.DBus.Error.Disconnected";
inline constexpr const char* error_invalid_arguments = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr const char* error_limits_exceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr const char* error_failed = "org.freedesktop.DBus.Error.Failed";
inline constexpr const char* error_unknown_object = "org.freedesktop.DBus.Error.UnknownObject";
inline constexpr const char* error_unknown_interface = "org.freedesktop.DBus.Error.UnknownInterface";
inline constexpr const char* error_unknown_method = "org.freedesktop.DBus.Error.UnknownMethod";
inline constexpr const char* error_unknown_property = "org.freedesktop.DBus.Error.UnknownProperty";
inline constexpr const char* error_property_read_only = "org.freedesktop.DBus.Error.PropertyReadOnly";
inline constexpr const char* error_file_not_found = "org.freedesktop.DBus.Error.FileNotFound";

/// The message when a peer is disconnected because it does not complete the handshake.
inline constexpr const char* handshake_took_too_long = "the handshake took too long";

/// The result of a method that only succeeds or fails. It does not appear in the signature.
struct Outcome {
  std::string error_name;  // empty: done
  std::string error_message;
};

}  // namespace kelvane::xpc
