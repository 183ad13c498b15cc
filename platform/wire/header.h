#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/wire/protocol.h"

namespace kelvane::wire {

using Bytes = std::span<const std::byte>;

/// The header of a message that was received. The texts point into the bytes it was read from; a field that
/// is absent is empty.
struct Header {
  bool big_endian = false;
  MessageType type = MessageType::method_call;
  std::uint8_t flags = 0;
  std::uint32_t serial = 0;
  std::uint32_t reply_serial = 0;  // 0: absent
  std::uint32_t descriptors = 0;   // how many the message names
  std::string_view path = {};
  std::string_view interface = {};
  std::string_view member = {};
  std::string_view error_name = {};
  std::string_view destination = {};
  std::string_view sender = {};
  std::string_view signature = {};  // of the body

  [[nodiscard]] bool expectsReply() const {
    return type == MessageType::method_call && (flags & flag_no_reply_expected) == 0;
  }
};

/// Whether the header has what its type requires, its names are valid, none of them is reserved, and the
/// signature is one. An unknown type requires nothing.
[[nodiscard]] bool isHeaderValid(const Header& header);

/// The whole size, padding included, that a message claims for itself in its first 16 bytes. Nothing when no
/// message begins like that: byte order, type 0, version, serial 0, an array or a sum above D-Bus's limits.
[[nodiscard]] std::optional<std::size_t> claimedSize(std::span<const std::byte, fixed_header_size> start);

/// Reads the header of a whole message and finds its body. Nothing when it breaks a rule of the protocol:
/// a field of a wrong type or with an invalid name, a required field missing, padding that is not zero, a
/// known field twice. Unknown fields and unknown message types are not errors (callers ignore such messages).
struct Message {
  Header header;
  Bytes body;
};
[[nodiscard]] std::optional<Message> parseMessage(Bytes message);

}  // namespace kelvane::wire
