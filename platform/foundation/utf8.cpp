#include "platform/foundation/utf8.h"

#include <cstddef>
#include <cstdint>

namespace kelvane {
namespace {

struct Lead {
  std::size_t continuations;
  std::uint32_t bits;
  std::uint32_t smallest;  // what fewer bytes can say must not be said with these
};

/// What a first byte of 0x80 or more announces; no continuations for a byte that begins nothing.
Lead lead(std::uint8_t byte) {
  if ((byte & 0xe0) == 0xc0) return {1, byte & 0x1fU, 0x80};
  if ((byte & 0xf0) == 0xe0) return {2, byte & 0x0fU, 0x800};
  if ((byte & 0xf8) == 0xf0) return {3, byte & 0x07U, 0x10000};
  return {0, 0, 0};
}

/// Length of the sequence that `text` begins with, 0 when it begins with none.
std::size_t sequenceLength(std::string_view text) {
  const Lead first = lead(static_cast<std::uint8_t>(text.front()));
  if (first.continuations == 0 || text.size() <= first.continuations) return 0;
  std::uint32_t point = first.bits;
  for (std::size_t i = 1; i <= first.continuations; ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    if ((byte & 0xc0) != 0x80) return 0;
    point = point << 6 | (byte & 0x3fU);
  }
  const bool surrogate = point >= 0xd800 && point <= 0xdfff;
  return point < first.smallest || point > 0x10ffff || surrogate ? 0 : first.continuations + 1;
}

}  // namespace

bool isMessageText(std::string_view text) {
  while (!text.empty()) {
    const auto byte = static_cast<std::uint8_t>(text.front());
    const std::size_t length = byte < 0x80 ? (byte != 0 ? 1 : 0) : sequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace kelvane
