#pragma once

// The little of generic netlink that listening to the kernel takes: netlink(7), and
// linux/Documentation/userspace-api/netlink. Messages and attributes are aligned to four bytes.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

struct NetlinkAttribute {
  std::uint16_t type;
  std::span<const unsigned char> value;
};

/// Takes the attribute that `attributes` begins with; nothing at the end, and where the bytes hold no whole
/// one.
[[nodiscard]] std::optional<NetlinkAttribute> takeAttribute(std::span<const unsigned char>& attributes);
/// The value of the first attribute of that type; empty without one.
[[nodiscard]] std::span<const unsigned char> attributeValue(std::span<const unsigned char> attributes,
                                                            std::uint16_t type);

/// A generic netlink message, without the bytes of its headers.
struct GenericNetlinkMessage {
  std::uint16_t family;
  std::uint8_t command;
  std::span<const unsigned char> attributes;
};
/// Nothing when the bytes hold no whole one.
[[nodiscard]] std::optional<GenericNetlinkMessage> parseGenericNetlink(std::span<const unsigned char> bytes);

/// A socket, not blocking, that receives what the kernel sends to the group of the family; empty where the
/// kernel has no such family or group.
[[nodiscard]] FileDescriptor listenToNetlinkGroup(std::string_view family, std::string_view group);

}  // namespace kelvane
