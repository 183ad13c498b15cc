// A stream from its first byte, handshake and messages, cut anywhere, with descriptors, against a transport
// on a real socket pair: a server whose client is hostile, and a client whose server is.
//
// Input: flags (see Plan), the number of pieces, and for each piece a word with its length and a byte: the
// lowest three bits say with how many descriptors it is sent, the fourth that it is that many times 16 bytes
// of zeros instead. What the pieces leave is the last one.

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "fuzz/body_text.h"
#include "fuzz/descriptor_origins.h"
#include "fuzz/target.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/wire/transport.h"

namespace kelvane::fuzz {
namespace {

using wire::Resource;
using wire::Transport;
using Outcome = Transport::Outcome;

struct Piece {
  std::vector<std::byte> bytes;
  std::size_t descriptors = 0;
};

struct Plan {
  explicit Plan(std::span<const std::uint8_t> input) {
    Choices choices(input);
    const std::uint8_t flags = choices.byte();
    is_client = (flags & 1U) != 0;
    options.takes_descriptors = (flags & 2U) != 0;
    options.passes_descriptors = (flags & 4U) == 0;
    answers = (flags & 8U) != 0;
    stops_after_each = (flags & 16U) != 0;
    keeps_descriptors = (flags & 32U) != 0;
    is_poor = (flags & 64U) != 0;
    options.longest_message = (flags & 128U) != 0 ? 1000 : 1U << 20U;
    options.most_descriptors = 4;
    for (unsigned count = choices.byte() % 16; count > 0; --count) takePiece(choices);
    const auto rest = std::as_bytes(choices.rest());
    pieces.push_back({{rest.begin(), rest.end()}, 0});
  }

  void takePiece(Choices& choices) {
    lengths.push_back(choices.word());
    kinds.push_back(choices.byte());
  }

  /// The bytes stand behind all the lengths.
  void fill() {
    std::vector<std::byte> stream = std::move(pieces.back().bytes);
    pieces.clear();
    std::size_t at = 0;
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      const bool is_zeros = (kinds[i] & 8U) != 0;
      const std::size_t size =
          is_zeros ? std::size_t{lengths[i]} * 16 : std::min<std::size_t>(lengths[i], stream.size() - at);
      const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
      Piece piece{is_zeros ? std::vector<std::byte>(size)
                           : std::vector<std::byte>(begin, begin + static_cast<std::ptrdiff_t>(size)),
                  size == 0 ? 0 : kinds[i] & 7U};
      if (!is_zeros) at += size;
      pieces.push_back(std::move(piece));
    }
    pieces.push_back({{stream.begin() + static_cast<std::ptrdiff_t>(at), stream.end()}, 0});
  }

  /// The same stream in one piece.
  [[nodiscard]] Plan whole() const {
    Plan plan = *this;
    plan.pieces = {{}};
    plan.stops_after_each = false;
    for (const Piece& piece : pieces)
      plan.pieces[0].bytes.insert(plan.pieces[0].bytes.end(), piece.bytes.begin(), piece.bytes.end());
    return plan;
  }

  [[nodiscard]] bool passesDescriptors() const {
    return std::any_of(pieces.begin(), pieces.end(),
                       [](const Piece& piece) { return piece.descriptors > 0; });
  }

  bool is_client = false;
  bool answers = false;
  bool stops_after_each = false;
  bool keeps_descriptors = false;
  bool is_poor = false;
  wire::TransportOptions options;
  std::vector<std::uint16_t> lengths;
  std::vector<std::uint8_t> kinds;
  std::vector<Piece> pieces;
};

/// Descriptors to pass, of which it can be seen whether all copies were closed.
class Passed {
 public:
  Passed() {
    std::array<int, 2> ends{};
    require(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) == 0, "a pipe can be made");
    reading_ = FileDescriptor(ends[0]);
    writing_ = FileDescriptor(ends[1]);
  }
  [[nodiscard]] int get() const { return writing_.get(); }
  [[nodiscard]] bool allClosed() {
    writing_.reset();
    pollfd state{reading_.get(), POLLIN, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
  }

 private:
  FileDescriptor reading_;
  FileDescriptor writing_;
};

const wire::Limits& generous() {
  static const wire::Limits limits = {10, 64U << 20U, 1U << 20U, 100, 100, 100};
  return limits;
}
const wire::Limits& poor() {
  static const wire::Limits limits = {10, 300, 200, 3, 100, 100};
  return limits;
}

/// What became of a stream.
struct Course {
  std::vector<std::string> messages;
  std::string reason;
  std::string output;
};

/// One transport, and the peer that it is not to trust.
class Trial {
 public:
  explicit Trial(const Plan& plan)
      : plan_(plan), account_(std::make_shared<wire::Account>(1000, plan.is_poor ? poor() : generous())) {
    std::array<int, 2> ends{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
            "a socket pair can be made");
    peer_ = FileDescriptor(ends[0]);
    transport_ = std::make_unique<Transport>(
        FileDescriptor(ends[1]), plan.is_client ? Transport::Side::client : Transport::Side::server, 0,
        account_, plan.options);
  }

  Course run() {
    if (plan_.is_client && plan_.answers) answer();
    if (plan_.is_client) transport_->startHandshake();
    for (const Piece& piece : plan_.pieces) send(piece);
    ::shutdown(peer_.get(), SHUT_WR);
    receive();
    course_.reason = transport_->reason();
    requireBounds();
    kept_.clear();
    charges_.clear();
    transport_.reset();
    requireThatNothingIsLeft();
    return std::move(course_);
  }

 private:
  void send(const Piece& piece) {
    std::span<const std::byte> rest = piece.bytes;
    std::size_t descriptors = piece.descriptors;
    while (!rest.empty()) {
      const std::size_t unread = unreadBytes();
      const ssize_t sent = sendSome(rest, descriptors);
      if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return;  // the transport closed its end
      const bool is_full = sent < 0;
      if (!is_full) {
        rest = rest.subspan(static_cast<std::size_t>(sent));
        // The kernel may join what was not yet read with what the descriptors were sent with.
        origins_.add({sent_ - unread, sent_ + static_cast<std::size_t>(sent)}, descriptors);
        sent_ += static_cast<std::size_t>(sent);
        descriptors = 0;
      }
      receive();
      if (is_full && !transport_->reason().empty()) return;
      if (is_full && stuck_) return;
    }
  }

  ssize_t sendSome(std::span<const std::byte> bytes, std::size_t descriptors) const {
    alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(8 * sizeof(int))> control{};
    iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptors > 0) {
      message.msg_control = control.data();
      message.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
      cmsghdr* const rights = CMSG_FIRSTHDR(&message);
      rights->cmsg_level = SOL_SOCKET;
      rights->cmsg_type = SCM_RIGHTS;
      rights->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
      for (std::size_t i = 0; i < descriptors; ++i) {
        const int descriptor = passed_.get();
        std::memcpy(CMSG_DATA(rights) + i * sizeof(int), &descriptor, sizeof(int));
      }
    }
    return ::sendmsg(peer_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  /// As a loop around the transport would: until there is nothing more for now.
  void receive() {
    constexpr unsigned most_turns = 100'000;
    for (unsigned turn = 0;; ++turn) {
      require(turn < most_turns, "reading comes to an end");
      const Outcome outcome =
          transport_->receive([this](Transport::Received& received) { return take(received); });
      requireBounds();
      readOutput();
      stuck_ = outcome == Outcome::no_room;
      if (outcome == Outcome::ended) {
        require(!transport_->reason().empty(), "an end has a reason");
      } else {
        require(origins_.allReachBeyond(handed_out_), "descriptors that no message names end the connection");
      }
      if (outcome != Outcome::more) return;
    }
  }

  bool take(Transport::Received& received) {
    require(transport_->isEstablished(), "messages come after the handshake");
    require(received.descriptors.size() == received.message.header.descriptors,
            "a message has as many descriptors as it names");
    require(received.bytes.amount() >= received.message.body.size(), "the bytes of a message are charged");
    const Stretch message = stretchOf(received);
    require(handed_out_ == 0 || message.begin == handed_out_, "messages follow one another without a gap");
    origins_.handOut(message, received.descriptors.size());
    handed_out_ = message.end;
    const bool is_valid = wire::isBodyValid(received.message, received.descriptors.size());
    course_.messages.push_back(headerText(received.message.header) +
                               (is_valid ? bodyText(received.message) : "invalid"));
    if (plan_.keeps_descriptors) keep(received);
    if (plan_.answers) answer();
    return !plan_.stops_after_each;
  }

  [[nodiscard]] std::size_t unreadBytes() const {
    int count = 0;
    require(::ioctl(transport_->socket(), FIONREAD, &count) == 0, "unread bytes can be counted");
    return static_cast<std::size_t>(count);
  }

  /// What was read and is not yet handed out is charged, and begins with this message.
  [[nodiscard]] Stretch stretchOf(const Transport::Received& received) const {
    const std::size_t waiting = account_->used(Resource::received_bytes) - kept_bytes_;
    const std::size_t begin = sent_ - unreadBytes() - waiting;
    return {begin, begin + received.bytes.amount()};
  }

  void keep(Transport::Received& received) {
    for (FileDescriptor& descriptor : received.descriptors) {
      require(static_cast<bool>(descriptor), "descriptors of a message are open");
      kept_.push_back(std::move(descriptor));
    }
    charges_.push_back(std::move(received.descriptor_charge));
    kept_bytes_ += received.bytes.amount();
    charges_.push_back(std::move(received.bytes));
  }

  void answer() {
    wire::Outgoing outgoing;
    const bool with_descriptor = answers_++ % 3 == 2;
    wire::Writer writer(outgoing, {.type = wire::MessageType::method_return,
                                   .reply_serial = 7,
                                   .signature = with_descriptor ? "h" : "s"});
    with_descriptor ? writer.writeDescriptor(passed_.get()) : writer.writeString("some text");
    require(writer.finish() == wire::Writer::Fault::none, "an answer can be written");
    int error = 0;
    const std::uint32_t serial = transport_->send(outgoing, error);
    require(serial != 0 || error == EPIPE || error == ENOBUFS || error == EOPNOTSUPP || error == ETOOMANYREFS,
            "an answer is sent, or a reason is given");
  }

  void readOutput() {
    std::array<char, 4096> room{};
    ssize_t size = 0;
    while ((size = ::recv(peer_.get(), room.data(), room.size(), MSG_DONTWAIT)) > 0)
      course_.output.append(room.data(), static_cast<std::size_t>(size));
    if (transport_->wantsToWrite()) transport_->flush();
  }

  void requireBounds() const {
    for (std::size_t i = 0; i < wire::resource_count; ++i) {
      const auto resource = static_cast<Resource>(i);
      require(account_->used(resource) <= account_->limit(resource), "no account is overdrawn");
    }
    require(account_->used(Resource::received_bytes) <= sent_, "no more is charged than came");
  }

  void requireThatNothingIsLeft() {
    peer_.reset();
    for (std::size_t i = 0; i < wire::resource_count; ++i)
      require(account_->used(static_cast<Resource>(i)) == 0, "what was charged is released");
    require(passed_.allClosed(), "every descriptor that came is closed");
  }

  const Plan& plan_;
  const std::shared_ptr<wire::Account> account_;
  FileDescriptor peer_;
  std::unique_ptr<Transport> transport_;
  Passed passed_;
  std::vector<FileDescriptor> kept_;
  std::vector<wire::Charge> charges_;
  std::size_t kept_bytes_ = 0;  // of the charges
  DescriptorOrigins origins_;
  std::size_t handed_out_ = 0;  // the stream up to here
  Course course_;
  std::size_t sent_ = 0;
  unsigned answers_ = 0;
  bool stuck_ = false;
};

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  Plan plan(input);
  plan.fill();
  const Course course = Trial(plan).run();
  if (plan.is_poor || plan.passesDescriptors()) return;
  const Course at_once = Trial(plan.whole()).run();
  require(course.messages == at_once.messages, "wherever a stream is cut, the same messages come of it");
  require(course.reason == at_once.reason, "wherever a stream is cut, it ends for the same reason");
}

}  // namespace kelvane::fuzz
