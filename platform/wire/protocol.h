#pragma once

// The limits and codes of the D-Bus protocol. Source: D-Bus, chapter "Message Protocol".

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelvane::wire {

enum class MessageType : std::uint8_t { method_call = 1, method_return = 2, error = 3, signal = 4 };

/// Codes of header fields.
enum class HeaderField : std::uint8_t {
  path = 1,
  interface = 2,
  member = 3,
  error_name = 4,
  reply_serial = 5,
  destination = 6,
  sender = 7,
  signature = 8,
  descriptors = 9,
};

inline constexpr std::uint8_t flag_no_reply_expected = 1;

inline constexpr std::uint8_t protocol_version = 1;
/// Offsets in the fixed part of a header. The array of fields begins after its length.
inline constexpr std::size_t body_length_offset = 4;
inline constexpr std::size_t serial_offset = 8;
inline constexpr std::size_t fields_length_offset = 12;

/// Reserved for messages that a library creates within its own process; invalid in messages that are
/// received.
inline constexpr std::string_view reserved_path = "/org/freedesktop/DBus/Local";
inline constexpr std::string_view reserved_interface = "org.freedesktop.DBus.Local";

inline constexpr std::size_t fixed_header_size = 16;
inline constexpr std::size_t longest_protocol_message = 128U << 20;
inline constexpr std::size_t longest_array = 64U << 20;
inline constexpr std::size_t longest_signature = 255;
inline constexpr std::size_t longest_name = 255;
inline constexpr unsigned deepest_arrays = 32;
inline constexpr unsigned deepest_structs = 32;
/// Arrays, structs, dictionary entries and variants together.
inline constexpr unsigned deepest_containers = 64;
/// The kernel passes at most this many descriptors at a time (SCM_MAX_FD).
inline constexpr std::size_t most_passed_descriptors = 253;

}  // namespace kelvane::wire
