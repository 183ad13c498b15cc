#include "platform/wire/sendable_text.h"

#include <cstddef>
#include <cstdint>

#include "platform/foundation/utf8.h"

namespace kelvane::wire {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";  // U+FFFD

/// The length of the noncharacter that begins here in valid UTF-8; 0 if there is none.
std::size_t noncharacterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  if (byte(0) == 0xef) {
    const bool arabic = byte(1) == 0xb7 && byte(2) >= 0x90 && byte(2) <= 0xaf;  // U+FDD0 to U+FDEF
    const bool last_two = byte(1) == 0xbf && byte(2) >= 0xbe;                   // U+FFFE, U+FFFF
    return arabic || last_two ? 3 : 0;
  }
  // U+1FFFE, U+1FFFF and so on, to U+10FFFF.
  const bool last_two = byte(0) >= 0xf0 && (byte(1) & 0xf) == 0xf && byte(2) == 0xbf && byte(3) >= 0xbe;
  return last_two ? 4 : 0;
}

/// How many bytes of UTF-8 text come before its first noncharacter.
std::size_t lengthBeforeNoncharacter(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (static_cast<std::uint8_t>(text[i]) >= 0xef && noncharacterLength(text.substr(i)) > 0) return i;
  }
  return text.size();
}

void appendWithoutNoncharacters(std::string& result, std::string_view text) {
  for (;;) {
    const std::size_t good = lengthBeforeNoncharacter(text);
    result += text.substr(0, good);
    text.remove_prefix(good);
    if (text.empty()) return;
    result += replacement;
    text.remove_prefix(noncharacterLength(text));
  }
}

}  // namespace

bool isSendable(std::string_view text) {
  return plainTextLength(text) == text.size() ||
         (isMessageText(text) && lengthBeforeNoncharacter(text) == text.size());
}

std::string repairedText(std::string_view text) {
  std::string result;
  for (;;) {
    const std::size_t valid = messageTextLength(text);
    appendWithoutNoncharacters(result, text.substr(0, valid));
    text.remove_prefix(valid);
    if (text.empty()) return result;
    result += replacement;
    text.remove_prefix(1);
  }
}

}  // namespace kelvane::wire
