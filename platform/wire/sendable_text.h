#pragma once

#include <string>
#include <string_view>

namespace kelvane::wire {

/// Whether every D-Bus library accepts the text: valid UTF-8 without NUL and without noncharacters (such as
/// U+FFFE and U+FFFF), which some libraries refuse.
[[nodiscard]] bool isSendable(std::string_view text);

/// The text with U+FFFD in place of each byte and each noncharacter that may not be sent.
[[nodiscard]] std::string repairedText(std::string_view text);

}  // namespace kelvane::wire
