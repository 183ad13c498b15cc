#pragma once

// The limits and codes of the D-Bus protocol. Source: the D-Bus specification, "Message Protocol".

#include <cstddef>
#include <cstdint>

namespace kelvane::wire {

enum class MessageType : std::uint8_t { method_call = 1, method_return = 2, error = 3, signal = 4 };

inline constexpr std::uint8_t flag_no_reply_expected = 1;

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
