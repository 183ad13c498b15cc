#pragma once

// The reasoned differences between this system's reader of messages, libdbus and sd-bus. Each has a name, and
// its reason stands in README.md under that name. What differs for any other reason is a finding, but for
// what sd-bus alone accepts.

#include <cstdint>
#include <optional>
#include <span>

#include "platform/wire/header.h"

namespace kelvane::fuzz {

/// One message as it is judged here.
struct Judged {
  wire::Bytes bytes;
  std::optional<wire::Message> message;  // nothing when the header is refused
  bool accepted = false;                 // header and body, without any descriptor
};

/// Whether libdbus may refuse what is accepted here.
[[nodiscard]] bool libdbusMayRefuse(const Judged& judged);
/// Whether libdbus may accept what is refused here.
[[nodiscard]] bool libdbusMayAccept(const Judged& judged);
[[nodiscard]] bool sdBusMayRefuse(const Judged& judged);

}  // namespace kelvane::fuzz
