#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/wire/protocol.h"

namespace kelvane::wire {

using Bytes = std::span<const std::byte>;

/// The header of a received message. The strings point into the message's bytes; an absent field is empty.
struct Header {
  bool big_endian = false;
  MessageType type = MessageType::method_call;
  std::uint8_t flags = 0;
  std::uint32_t serial = 0;
  std::uint32_t reply_serial = 0;  // 0: absent
  std::uint32_t descriptors = 0;   // how many the message carries (UNIX_FDS)
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

/// Whether the header has the fields that its type requires, its names are valid and not reserved, and its
/// signature is valid. An unknown type requires no fields.
[[nodiscard]] bool isHeaderValid(const Header& header);

/// The total size, including padding, that a message claims in its first 16 bytes. Nothing if they are
/// invalid: unknown byte order, type 0, wrong version, serial 0, or an array or total size above D-Bus's
/// limits.
[[nodiscard]] std::optional<std::size_t> claimedSize(std::span<const std::byte, fixed_header_size> start);

/// Reads the header of a whole message and finds its body. Nothing when it breaks a rule of the protocol:
/// a field of a wrong type or with an invalid name, a required field missing, padding that is not zero, a
/// field twice. Unknown fields and unknown message types are not errors (callers ignore such messages).
struct Message {
  Header header;
  Bytes body;
};
[[nodiscard]] std::optional<Message> parseMessage(Bytes message);

}  // namespace kelvane::wire
