#include "platform/foundation/utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

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

/// Most texts are ASCII to their end, so eight bytes are checked at a time. Subtracting one from each byte
/// sets the top bit of a byte that is zero.
std::size_t plainTextLength(std::string_view text) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t top_bits = 0x8080808080808080;
  std::size_t length = 0;
  for (; text.size() - length >= sizeof(std::uint64_t); length += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + length, sizeof word);
    if ((((word - ones) | word) & top_bits) != 0) break;
  }
  while (length < text.size() && static_cast<signed char>(text[length]) > 0) ++length;
  return length;
}

bool isMessageText(std::string_view text) { return messageTextLength(text) == text.size(); }

std::size_t messageTextLength(std::string_view text) {
  std::size_t length = 0;
  for (;;) {
    length += plainTextLength(text.substr(length));
    if (length == text.size()) return length;
    const std::size_t sequence = sequenceLength(text.substr(length));
    if (sequence == 0) return length;
    length += sequence;
  }
}

}  // namespace kelvane
