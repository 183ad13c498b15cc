// The same bytes to this system's parser, to libdbus and to sd-bus. What is accepted here both others accept,
// libdbus accepts nothing else, and all read the same values, but for the differences in differences.h. What
// sd-bus alone accepts is counted: it checks less than D-Bus asks for.
//
// Input: flags (bit 0: put the right length of the body into the header first), then the bytes of one
// message. What is behind its end is cut off.

#include <algorithm>
#include <cstdio>
#include <vector>

#include "fuzz/body_text.h"
#include "fuzz/differences.h"
#include "fuzz/lax_body.h"
#include "fuzz/peers.h"
#include "fuzz/target.h"

namespace kelvane::fuzz {
namespace {

using wire::Bytes;

std::uint32_t numberAt(std::span<const std::uint8_t> bytes, std::size_t at) {
  std::uint32_t number = 0;
  const bool big_endian = bytes[0] == 'B';
  for (std::size_t i = 0; i < 4; ++i) number = number << 8U | bytes[at + (big_endian ? i : 3 - i)];
  return number;
}

void putNumberAt(std::span<std::uint8_t> bytes, std::size_t at, std::uint32_t number) {
  const bool big_endian = bytes[0] == 'B';
  for (std::size_t i = 0; i < 4; ++i)
    bytes[at + (big_endian ? 3 - i : i)] = static_cast<std::uint8_t>(number >> (8 * i));
}

/// The lengths stand in the first 16 bytes; the body begins at a multiple of 8 behind the fields.
std::uint64_t bodyOffset(std::span<const std::uint8_t> message) {
  return (wire::fixed_header_size + std::uint64_t{numberAt(message, wire::fields_length_offset)} + 7) / 8 * 8;
}

/// Even where another rule is broken: what is behind it would be a second message to sd-bus.
std::uint64_t statedSize(std::span<const std::uint8_t> message) {
  return bodyOffset(message) + numberAt(message, wire::body_length_offset);
}

void repairBodyLength(std::span<std::uint8_t> message) {
  const std::uint64_t body_at = bodyOffset(message);
  if (body_at <= message.size())
    putNumberAt(message, wire::body_length_offset, static_cast<std::uint32_t>(message.size() - body_at));
}

Judged judge(Bytes bytes) {
  Judged judged{bytes, wire::parseMessage(bytes), false};
  judged.accepted =
      judged.message && judged.message->header.descriptors == 0 && wire::isBodyValid(*judged.message, 0);
  if (judged.message && judged.message->header.descriptors == 0) {
    require(judged.accepted == isBodyValidBut(*judged.message, {}),
            "the simple reader agrees with the fast one");
  }
  return judged;
}

void compareLibdbus(const Judged& judged, const std::optional<Opinion>& opinion) {
  if (!opinion)
    return require(!judged.accepted || libdbusMayRefuse(judged), "libdbus accepts what is accepted here");
  if (!judged.accepted) return require(libdbusMayAccept(judged), "what libdbus accepts is accepted here");
  require(opinion->header == headerText(judged.message->header), "libdbus reads the same header");
  require(opinion->body == bodyText(*judged.message), "libdbus reads the same body");
}

void compareSdBus(const Judged& judged, const std::optional<Opinion>& opinion) {
  if (!opinion)
    return require(!judged.accepted || sdBusMayRefuse(judged), "sd-bus accepts what is accepted here");
  if (!judged.accepted) return;
  require(opinion->header == headerText(judged.message->header), "sd-bus reads the same header");
  require(opinion->body == bodyText(*judged.message), "sd-bus reads the same body");
}

/// Printed when the process ends.
class Count {
 public:
  explicit Count(const char* what) : what_(what) {}
  ~Count() { std::fprintf(stderr, "counted: %llu %s\n", count_, what_); }
  Count(const Count&) = delete;
  Count& operator=(const Count&) = delete;

  void add() { ++count_; }

 private:
  const char* const what_;
  unsigned long long count_ = 0;
};

void compare(const Judged& judged, std::span<const std::uint8_t> message) {
  const std::optional<Opinion> of_libdbus = opinionOfLibdbus(message);
  compareLibdbus(judged, of_libdbus);
  // Of less than the message states sd-bus would make room for all, and wait for the rest.
  if (message.size() < statedSize(message)) return;
  static SdBus sd_bus;
  const std::optional<Opinion> of_sd_bus = sd_bus.opinion(message);
  compareSdBus(judged, of_sd_bus);
  if (!of_sd_bus || judged.accepted) return;
  require(!of_libdbus, "what both others accept is accepted here");
  static Count count("messages that sd-bus alone accepts");
  count.add();
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  constexpr std::size_t longest = 64U << 10U;  // fits the socket
  Choices choices(input);
  const bool repairs = (choices.byte() & 1U) != 0;
  const auto left = choices.bytes(longest);
  if (left.size() < wire::fixed_header_size) return;
  std::vector<std::uint8_t> message(left.begin(), left.end());
  if (repairs) repairBodyLength(message);
  message.resize(std::min<std::uint64_t>(message.size(), statedSize(message)));
  message.shrink_to_fit();
  compare(judge(std::as_bytes(std::span(message))), message);
}

}  // namespace kelvane::fuzz
