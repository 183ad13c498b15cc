#include "platform/xpc/intake.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kelvane::xpc {
namespace {

constexpr std::size_t fixed_header_bytes = 16;
// The least header field takes eight bytes, and no message does without one.
constexpr std::uint64_t least_message_bytes = fixed_header_bytes + 8;
constexpr int far_away = 1 << 30;
constexpr int from_the_start = -1;

// As much as most messages have.
constexpr std::size_t look_bytes = 1024;

// The library reads so much of a handshake at a time, or as much as it has read already.
constexpr std::size_t handshake_piece = 256;

// The kernel's offset for peeking goes down by what is read. It serves as the counter.
void setPeekOffset(int socket, int offset) {
  ::setsockopt(socket, SOL_SOCKET, SO_PEEK_OFF, &offset, sizeof offset);
}

constexpr std::size_t body_size_at = 4;
constexpr std::size_t serial_at = 8;
constexpr std::size_t fields_size_at = 12;

std::uint32_t numberIn(const char* header, std::size_t at) {
  const bool big = header[0] == 'B';
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value |= std::uint32_t{static_cast<std::uint8_t>(header[at + (big ? 3 - i : i)])} << (8 * i);
  return value;
}

/// The whole size of the message that begins with this header, as its sender claims.
std::uint64_t claimedSize(const char* header) {
  const std::uint64_t fields = (std::uint64_t{numberIn(header, fields_size_at)} + 7) & ~std::uint64_t{7};
  return fixed_header_bytes + fields + numberIn(header, body_size_at);
}

}  // namespace

std::int64_t Intake::peek(int socket, char* buffer, std::size_t size) {
  if (std::exchange(counting_, false)) setPeekOffset(socket, from_the_start);
  return ::recv(socket, buffer, size, MSG_PEEK | MSG_DONTWAIT);
}

bool Intake::lookAtHandshake(int socket) {
  handshake_.resize(handshake_taken_ + std::max(handshake_piece, handshake_taken_));
  const std::int64_t length =
      peek(socket, handshake_.data() + handshake_taken_, handshake_.size() - handshake_taken_);
  handshake_emptied_ = length > 0 && handshake_taken_ + static_cast<std::size_t>(length) < handshake_.size();
  handshake_.resize(handshake_taken_ + (length > 0 ? static_cast<std::size_t>(length) : 0));
  const bool anything = length >= 0 || errno != EAGAIN;
  startCounting(socket);
  return anything;
}

void Intake::noteHandshake(std::uint64_t taken) {
  const std::size_t seen = handshake_.size() - handshake_taken_;
  if (taken > seen) handshake_seen_ = false;
  if (taken != seen) handshake_emptied_ = false;
  handshake_taken_ = handshake_seen_ ? handshake_taken_ + taken : 0;
}

std::size_t Intake::bytesThrough(std::string_view last) const {
  const std::size_t found = handshake_.find("\r\n" + std::string(last) + "\r\n");
  if (found == std::string::npos) return 0;
  const std::size_t end = found + 2 + last.size() + 2;
  return end > handshake_taken_ ? end - handshake_taken_ : 0;
}

Intake::Progress Intake::endHandshake(std::string_view last, std::uint64_t most_bytes) {
  std::string text = std::exchange(handshake_, {});
  text.resize(handshake_taken_);
  if (!handshake_seen_) return Progress::none;
  const std::size_t found =
      last.empty() ? text.rfind("\r\n") : text.find("\r\n" + std::string(last) + "\r\n");
  if (found == std::string::npos) return Progress::none;
  const std::size_t end = found + 2 + (last.empty() ? 0 : last.size() + 2);
  return goThrough(std::string_view(text).substr(end), most_bytes);
}

/// Sets the state as if the messages had been seen one after the other.
Intake::Progress Intake::goThrough(std::string_view messages, std::uint64_t most_bytes) {
  while (messages.size() >= fixed_header_bytes) {
    const std::uint64_t size = claimedSize(messages.data());
    if (size < least_message_bytes) return Progress::dropped;
    if (size > most_bytes) return Progress::too_large;
    if (size > messages.size()) {
      known_ = true;
      remaining_ = size - messages.size();
      return Progress::part;
    }
    ++brought_along_;
    messages.remove_prefix(size);
  }
  // The rest of a header that the library holds a part of is not seen.
  known_ = messages.empty();
  taken_ = messages.size();
  return known_ ? Progress::none : Progress::part;
}

Intake::Next Intake::look(int socket, std::uint64_t most_bytes) {
  std::array<char, look_bytes> seen{};
  const std::int64_t length = peek(socket, seen.data(), seen.size());
  claimed_ = 0;
  serial_ = 0;
  seen_ = 0;
  // An error is shown once only, and the library has yet to learn of it.
  if (length <= 0) return length < 0 && errno == EAGAIN ? Next::nothing : Next::end;
  if (length < static_cast<std::int64_t>(fixed_header_bytes)) return Next::part_of_header;
  claimed_ = claimedSize(seen.data());
  serial_ = numberIn(seen.data(), serial_at);
  seen_ = static_cast<std::uint64_t>(length);
  if (claimed_ < least_message_bytes || serial_ == 0) return Next::malformed;
  return claimed_ > most_bytes ? Next::too_large : Next::message;
}

// A look does not tell: it ends where descriptors, or another sender's bytes, begin.
bool Intake::nothingWaits(int socket) {
  int bytes = 0;
  return ::ioctl(socket, FIONREAD, &bytes) == 0 && bytes == 0;
}

void Intake::startCounting(int socket) {
  if (!counting_ || counted_ > far_away / 2) {
    setPeekOffset(socket, far_away);
    counted_ = 0;
  }
  counting_ = true;
  counted_before_ = counted_;
}

std::uint64_t Intake::counted(int socket) {
  int offset = far_away;
  socklen_t length = sizeof offset;
  ::getsockopt(socket, SOL_SOCKET, SO_PEEK_OFF, &offset, &length);
  counted_ = static_cast<std::uint64_t>(far_away - offset);
  return counted_ - counted_before_;
}

void Intake::noteMessage(std::uint64_t taken) {
  claimed_ = 0;
  serial_ = 0;
  seen_ = 0;
  if (brought_along_ > 0) {
    --brought_along_;
    return;
  }
  if (taken > 0) known_ = true;
  remaining_ = 0;
  taken_ = 0;
}

Intake::Progress Intake::noteNoMessage(std::uint64_t taken, bool done, std::uint64_t most_bytes) {
  seen_ = 0;
  if (brought_along_ > 0 && (done || taken > 0)) return Progress::dropped;
  if (taken == 0) return Progress::none;
  if (atBoundary()) remaining_ = claimed_;
  if (known_ && remaining_ != 0) {
    if (taken >= remaining_) return Progress::dropped;
    remaining_ -= taken;
    return Progress::part;
  }
  // Nobody has seen this message's header.
  known_ = false;
  taken_ += taken;
  return taken_ > most_bytes ? Progress::too_large : Progress::part;
}

}  // namespace kelvane::xpc
