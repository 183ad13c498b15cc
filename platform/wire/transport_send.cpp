#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/wire/transport.h"

namespace kelvane::wire {

namespace {

// The kernel takes such a write entirely or not at all. It may take part of a longer one, so room for the
// rest must be reserved before the first byte is sent.
constexpr std::size_t never_cut = 16U << 10;

std::span<const std::byte> bytesOf(const std::string& text) { return std::as_bytes(std::span(text)); }

}  // namespace

std::uint32_t Transport::send(Outgoing& message, int& error) {
  beginHandshake();
  error = refusalOf(message);
  if (error != 0) return 0;
  if (++last_serial_ == 0) ++last_serial_;
  setSerial(message, last_serial_);
  if (mustWait(message)) {
    error = queue_.push(message.bytes, message.descriptors);
    if (!handshake_output_.empty()) flush();
  } else {
    error = sendNow(message);
  }
  return error == 0 ? last_serial_ : 0;
}

int Transport::refusalOf(const Outgoing& message) const {
  if (!writable_ || !reason_.empty()) return EPIPE;
  if (message.bytes.empty()) return EINVAL;
  if (message.descriptors.empty()) return 0;
  if (message.descriptors.size() > most_passed_descriptors) return EINVAL;
  const bool asks = options_.takes_descriptors || (side_ == Side::client && options_.passes_descriptors);
  return passes_descriptors_ || (!established_ && asks) ? 0 : EOPNOTSUPP;
}

// Descriptors must not go with the bytes of the handshake.
bool Transport::mustWait(const Outgoing& message) const {
  const bool carries = !message.descriptors.empty();
  return !queue_.empty() || isHeld(carries) || (carries && !handshake_output_.empty());
}

bool Transport::isHeld(bool carries_descriptors) const {
  if (side_ == Side::server && !established_) return true;
  return carries_descriptors && !passes_descriptors_;
}

int Transport::sendNow(const Outgoing& message) {
  Charge room;
  if (message.bytes.size() > never_cut) {
    room = queue_.reserve(message.bytes.size());
    if (!room) return ENOBUFS;
  }
  const std::array<std::span<const std::byte>, 2> parts{bytesOf(handshake_output_), message.bytes};
  const auto used = std::span(parts).subspan(handshake_output_.empty() ? 1 : 0);
  const WriteResult result = writeSocket(socket_.get(), used, message.descriptors);
  if (result.error != 0 && result.error != EAGAIN) return failed(result.error);
  const std::size_t of_handshake = std::min(result.bytes, handshake_output_.size());
  handshake_output_.erase(0, of_handshake);
  return keepRest(message, result.bytes - of_handshake, std::move(room));
}

int Transport::keepRest(const Outgoing& message, std::size_t sent, Charge room) {
  if (sent == message.bytes.size()) return 0;
  const std::span<const std::byte> rest = std::span(message.bytes).subspan(sent);
  if (sent == 0) return queue_.push(rest, message.descriptors, std::move(room));
  const int error = queue_.push(rest, {}, std::move(room));
  if (error != 0) abandonOutput();
  return error;
}

void Transport::startHandshake() {
  beginHandshake();
  flush();
}

void Transport::beginHandshake() {
  if (started_) return;
  started_ = true;
  if (const auto* const client = std::get_if<ClientHandshake>(&handshake_))
    handshake_output_ = client->opening();
}

bool Transport::flush() {
  while (wantsToWrite()) {
    const WriteResult result = writeOnce();
    if (result.error == EAGAIN) break;
    if (result.error != 0) abandonOutput();
  }
  return writable_;
}

WriteResult Transport::writeOnce() {
  if (handshake_output_.empty()) return queue_.writeTo(socket_.get(), passes_descriptors_);
  const std::array<std::span<const std::byte>, 1> parts{bytesOf(handshake_output_)};
  const WriteResult result = writeSocket(socket_.get(), parts, {});
  handshake_output_.erase(0, result.bytes);
  return result;
}

/// What `send` says of a system call that failed.
int Transport::failed(int error) {
  if (error != EPIPE && error != ECONNRESET) return error;
  abandonOutput();
  return EPIPE;
}

// A truncated message cannot be completed, so the peer must not wait for the rest. What the peer has already
// sent is still read.
void Transport::abandonOutput() {
  writable_ = false;
  handshake_output_.clear();
  queue_.clear();
  ::shutdown(socket_.get(), SHUT_WR);
}

bool Transport::wantsToWrite() const {
  if (!writable_) return false;
  if (!handshake_output_.empty()) return true;
  return !queue_.empty() && !isHeld(queue_.beginsWithDescriptors());
}

std::uint64_t Transport::queuedBytes() const { return queue_.bytes(); }

}  // namespace kelvane::wire
