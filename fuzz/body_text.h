#pragma once

// A message as one text that says its values and nothing of how they are encoded, so that what different
// libraries make of the same bytes can be compared.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/wire/header.h"
#include "platform/wire/reader.h"

namespace kelvane::fuzz {

/// Numbers and texts in the form that all writers of such a text use.
[[nodiscard]] std::string numberText(char type, std::uint64_t bits);
[[nodiscard]] std::string stringText(char type, std::string_view text);

/// The fields of a header; an absent text is empty, an absent number is 0.
struct HeaderFields {
  std::uint8_t type = 0;
  std::uint32_t serial = 0;
  std::uint32_t reply_serial = 0;
  bool expects_reply = false;
  std::string path;
  std::string interface;
  std::string member;
  std::string error_name;
  std::string destination;
  std::string sender;
  std::string signature;
};
[[nodiscard]] std::string headerText(const HeaderFields& header);
[[nodiscard]] std::string headerText(const wire::Header& header);

/// What the reader's innermost container has left. A descriptor is read as "h", and not taken.
[[nodiscard]] std::string bodyText(wire::Reader& reader);
[[nodiscard]] std::string bodyText(const wire::Message& message);

}  // namespace kelvane::fuzz
