#include "platform/wire/transport.h"

#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/wire/server_identifier.h"
#include "platform/wire/shared_buffer.h"

namespace kelvane::wire {

namespace {

std::string_view textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

Transport::Transport(FileDescriptor socket, Side side, uid_t peer_or_self, std::shared_ptr<Account> account,
                     const TransportOptions& options)
    : side_(side),
      options_(options),
      socket_(std::move(socket)),
      received_charge_(Charge::adopt(account, Resource::received_bytes, 0)),
      descriptor_charge_(Charge::adopt(account, Resource::descriptors, 0)),
      queue_(std::move(account)) {
  if (side == Side::server) {
    handshake_.emplace<ServerHandshake>(peer_or_self, serverIdentifier(), options.takes_descriptors);
  } else {
    handshake_.emplace<ClientHandshake>(peer_or_self,
                                        options.takes_descriptors || options.passes_descriptors);
  }
}

Transport::~Transport() = default;

Transport::Outcome Transport::receive(const Handler& handler) {
  const Outcome outcome = reason_.empty() ? receiveOnce(handler) : Outcome::ended;
  if (reason_.empty()) return outcome;
  dropInput();
  return Outcome::ended;
}

Transport::Outcome Transport::receiveOnce(const Handler& handler) {
  if (stopped_) {
    handOutKept(handler);
    return Outcome::more;
  }
  const bool is_large = claimed_ > SharedBuffer::size && kept_.size() >= SharedBuffer::size / 2;
  return is_large ? readBehindKept(handler) : readIntoShared(handler);
}

// Leaves room for what is kept in front of what comes, and copies that there when the message has come whole.
Transport::Outcome Transport::readIntoShared(const Handler& handler) {
  const SharedBuffer buffer;
  const std::size_t before = kept_.size();
  const std::span<std::byte> room = buffer.bytes().subspan(before);
  const Progress progress = read(room);
  if (progress.bytes == 0) return progress.outcome;
  if (before + progress.bytes < claimed_) {
    kept_.append(room.first(progress.bytes), claimed_);
    carried_ = descriptors_.size();
    return progress.outcome;
  }
  if (before > 0) std::memcpy(buffer.bytes().data(), kept_.bytes().data(), before);
  kept_.clear();
  std::span<const std::byte> input = buffer.bytes().first(before + progress.bytes);
  handOut(input, handler);
  if (reason_.empty()) kept_.append(input, std::max(input.size(), claimed_));
  return stopped_ ? Outcome::more : progress.outcome;
}

Transport::Outcome Transport::readBehindKept(const Handler& handler) {
  const Progress progress = read(kept_.room(claimed_));
  kept_.added(progress.bytes);
  if (kept_.size() < claimed_) {
    carried_ = descriptors_.size();
  } else {
    handOutKept(handler);
  }
  return progress.outcome;
}

Transport::Progress Transport::read(std::span<std::byte> room) {
  std::size_t descriptor_room = 0;
  if (!chargeDescriptors(descriptor_room)) {
    missing_ = Resource::descriptors;
    return {Outcome::no_room};
  }
  const std::size_t granted = received_charge_.growUpTo(room.size());
  if (granted == 0) {
    descriptor_charge_.shrink(descriptor_room);
    missing_ = Resource::received_bytes;
    return {Outcome::no_room};
  }
  const ReadResult result = readSocket(socket_.get(), room.first(granted), descriptor_room, descriptors_);
  received_charge_.shrink(granted - result.bytes);
  descriptor_charge_.shrink(descriptor_room - result.passed);
  return {judge(result, granted), reason_.empty() ? result.bytes : 0};
}

// A server knows whether it agreed to take descriptors. A client may receive them in the same read as the
// server's agreement. If a partly received message already carries some, the rest is read without room for
// more.
bool Transport::chargeDescriptors(std::size_t& count) {
  const auto* const server = std::get_if<ServerHandshake>(&handshake_);
  const bool agreed = established_ ? passes_descriptors_ : server == nullptr || server->passesDescriptors();
  if (!options_.takes_descriptors || !agreed) return true;
  if (descriptors_.size() >= options_.most_descriptors) return true;
  count = descriptor_charge_.growUpTo(options_.most_descriptors - descriptors_.size());
  return count > 0 || !descriptors_.empty();
}

// After a short read the socket is empty, unless descriptors came: the kernel stops after these.
Transport::Outcome Transport::judge(const ReadResult& result, std::size_t room) {
  if (result.error == EAGAIN) return Outcome::drained;
  if (result.unasked) {
    end("the peer changed the options of this end's socket");
  } else if (result.dropped) {
    end("the peer passed file descriptors where none are taken, or more than are taken");
  } else if (result.error != 0 && result.error != ECONNRESET) {
    end(std::string("cannot read from the peer: ") + ::strerrordesc_np(result.error));
  } else if (result.bytes == 0) {  // with ECONNRESET the peer has not read everything
    end(kept_.empty() ? "the peer closed the connection"
                      : "the peer closed the connection in the middle of a message");
  }
  return result.bytes < room && result.passed == 0 ? Outcome::drained : Outcome::more;
}

void Transport::handOutKept(const Handler& handler) {
  std::span<const std::byte> input = kept_.bytes();
  handOut(input, handler);
  kept_.removeFront(kept_.size() - input.size());
}

/// Leaves in `input` what is to be kept.
void Transport::handOut(std::span<const std::byte>& input, const Handler& handler) {
  stopped_ = false;
  claimed_ = 0;
  if (!established_) advanceHandshake(input);
  while (established_ && reason_.empty() && handOutNext(input, handler)) {
  }
  if (!reason_.empty() || stopped_) return;
  carried_ = descriptors_.size();
  if (carried_ == 0 || (established_ && !input.empty())) return;
  end("the peer passed " + std::to_string(carried_) + " file descriptors that no message names");
}

/// Whether to go on.
bool Transport::handOutNext(std::span<const std::byte>& input, const Handler& handler) {
  const std::size_t size = nextMessage(input);
  if (size == 0) return false;
  const auto message = parseMessage(input.first(size));
  if (!message) return end("the peer sent a message with an invalid header"), false;
  input = input.subspan(size);
  const bool goes_on = handOutMessage(*message, size, handler);
  stopped_ = !goes_on && !input.empty();
  return goes_on;
}

/// The size of the message that `input` begins with; 0 when it has not come whole, or is not one.
std::size_t Transport::nextMessage(std::span<const std::byte> input) {
  if (input.size() < fixed_header_size) return 0;
  const auto claimed = claimedSize(input.first<fixed_header_size>());
  if (!claimed) {
    end("the peer sent bytes that do not begin a message");
  } else if (*claimed > options_.longest_message) {
    end("the peer began a message of " + std::to_string(*claimed) + " bytes: at most " +
        std::to_string(options_.longest_message) + " are allowed");
  } else if (*claimed > input.size()) {
    claimed_ = *claimed;
  } else {
    return *claimed;
  }
  return 0;
}

/// Whether to go on.
bool Transport::handOutMessage(const Message& message, std::size_t size, const Handler& handler) {
  const std::size_t named = message.header.descriptors;
  if (named > descriptors_.size() || named < carried_) {
    end("the peer sent a message that names " + std::to_string(named) + " file descriptors, and passed " +
        std::to_string(named < carried_ ? carried_ : descriptors_.size()));
    return false;
  }
  carried_ = 0;
  Received received{message, std::span(descriptors_).first(named), received_charge_.split(size), {}};
  if (named > 0) received.descriptor_charge = descriptor_charge_.split(named);
  const bool goes_on = handler(received);
  descriptors_.erase(descriptors_.begin(), descriptors_.begin() + static_cast<std::ptrdiff_t>(named));
  return goes_on;
}

void Transport::advanceHandshake(std::span<const std::byte>& input) {
  std::string_view text = textOf(input);
  auto* const server = std::get_if<ServerHandshake>(&handshake_);
  auto* const client = std::get_if<ClientHandshake>(&handshake_);
  const HandshakeState state =
      server != nullptr ? server->advance(text, handshake_output_) : client->advance(text);
  received_charge_.shrink(input.size() - text.size());
  input = input.last(text.size());
  if (state == HandshakeState::done) {
    establish(server != nullptr ? server->passesDescriptors() : client->passesDescriptors());
  }
  flush();
  if (state == HandshakeState::failed) end("the peer broke the rules of the handshake, or was refused");
}

void Transport::establish(bool passes_descriptors) {
  established_ = true;
  passes_descriptors_ = passes_descriptors;
  handshake_ = std::monostate();
  if (!passes_descriptors && !descriptors_.empty()) {
    end("the peer passed file descriptors that it had not agreed to");
  } else if (!passes_descriptors && queue_.carriesDescriptors()) {
    end("the peer takes no file descriptors");
  }
}

void Transport::end(std::string reason) { reason_ = std::move(reason); }

void Transport::dropInput() {
  kept_.clear();
  received_charge_.shrink(received_charge_.amount());
  descriptors_.clear();
  descriptor_charge_.shrink(descriptor_charge_.amount());
}

bool Transport::isMessageUnderWay() const { return established_ && !stopped_ && !kept_.empty(); }

}  // namespace kelvane::wire
