// How a connection reads and writes: everything between the socket's readiness and the bus library.
//
// The library reads whenever it is told to process, as soon as it has written what it can, and it takes in
// whatever the peer sends. Two things stand against that. Intake follows what it reads, and refuses a message
// by its header before the library sees it. And a connection that serves reads through a descriptor of its
// own, a copy of the socket's: while the peer owes us reading, or its calls wait for their handlers, an
// always empty socket stands in its place, so that the library goes on writing and reads nothing.
//
// Readiness is reported on change only. So every way out of here that leaves something to do either asks to
// be run again, or waits for a change that is sure to come: bytes from the peer, room to write (watched while
// the library has something to write), or a handler's end.

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "platform/xpc/connection_internal.h"

namespace kelvane::xpc {
namespace {

bool isWritable(int socket) {
  pollfd state{socket, POLLOUT, 0};
  return ::poll(&state, 1, 0) > 0;
}

/// While it lives, reading from `input` reads from another descriptor.
class InputInstead {
 public:
  InputInstead(int input, int other, int socket) : input_(input), socket_(socket) {
    if (input_ >= 0) ::dup3(other, input_, O_CLOEXEC);
  }
  ~InputInstead() {
    if (input_ >= 0) ::dup3(socket_, input_, O_CLOEXEC);
  }
  InputInstead(const InputInstead&) = delete;
  InputInstead& operator=(const InputInstead&) = delete;

 private:
  const int input_;
  const int socket_;
};

}  // namespace

int emptySocket() {
  static std::mutex mutex;
  static int it = -1;  // guarded by mutex
  const std::scoped_lock lock(mutex);
  if (it < 0) it = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  return it;
}

void Connection::handleEvents(std::uint32_t events) {
  Lock lock(mutex_);
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) hung_up_ = true;
  took_message_ = false;
  took_whole_ = false;
  int r = 1;
  while (bus_ != nullptr && r > 0 && !took_message_) r = step();
  if (bus_ == nullptr) return;
  if (r < 0) {
    finish(lock, Cause::interruption, std::strerror(-r));
    return;
  }
  watchForWriting();
  // One message a round: whatever else is ready comes first. And no round for nothing.
  if (r > 0 && somethingMayBeLeft()) source_.again();
}

/// What comes later than this looks is told by the socket.
bool Connection::somethingMayBeLeft() const {
  if (hung_up_ || !took_whole_) return true;
  // With nothing exported and no call outstanding, the next thing is most likely the end. Then it costs less
  // to come back for nothing than to ask.
  if (input_ < 0 && outstanding_.empty()) return true;
  return !intake_.nothingWaits(socket_);
}

/// Does one piece of work. Positive: there may be more; 0: nothing until the next event; negative: the
/// connection is to end. It ends before the bus would close the socket, which epoll still knows by its
/// number.
int Connection::step() {
  if (sd_bus_is_open(bus_) <= 0) return -ECONNRESET;
  if (!ready_) return stepHandshake();
  bool hold = false;
  const bool writes_first = std::exchange(writes_first_, false) && input_ < 0 && queuedMessages() > 0;
  if (intake_.atBoundary() && !writes_first) {
    hold = !under_way_ && peerMustWait();
    if (!hold) {
      if (const int r = lookAhead(hold); r < 0) return r;
    }
    if (hold && (queuedMessages() == 0 || !isWritable(socket_))) return 0;
  }
  const int r = process(hold);
  // The first call is on its way, and its answer, or the end, is told by the socket.
  const bool waits = writes_first && intake_.atBoundary() && intake_.handshakeEmptiedSocket() && !hung_up_ &&
                     queuedMessages() == 0;
  return r > 0 && waits ? 0 : r;
}

int Connection::stepHandshake() {
  int r = 1;
  if (sd_bus_is_ready(bus_) == 0) {
    const bool hold = !intake_.lookAtHandshake(socket_);
    const std::size_t last_bytes = accepting_ && input_ >= 0 ? intake_.bytesThrough("BEGIN") : 0;
    r = last_bytes > 0 ? processLastLine(last_bytes) : processHolding(hold);
    if (r < 0) return r;
    intake_.noteHandshake(intake_.counted(socket_));
  }
  if (sd_bus_is_ready(bus_) <= 0) return r;
  ready_ = true;
  writes_first_ = true;
  deadline_.cancel();
  const int verdict = judge(intake_.endHandshake(accepting_ ? "BEGIN" : "", limits_.message_bytes));
  return verdict < 0 ? verdict : 1;
}

/// What has been sent and the socket has not yet taken.
std::uint64_t Connection::queuedMessages() const {
  std::uint64_t queued = 0;
  if (bus_ != nullptr) sd_bus_get_n_queued_write(bus_, &queued);
  return queued;
}

/// Reading stops between two messages only, never inside one: that one's time is limited.
bool Connection::peerMustWait() const {
  return queuedMessages() + waiting_calls_ > limits_.calls_in_hand || waiting_bytes_ > limits_.message_bytes;
}

/// `hold` becomes true when there is nothing to be read yet.
int Connection::lookAhead(bool& hold) {
  switch (intake_.look(socket_, limits_.message_bytes)) {
    case Intake::Next::too_large:
      return -EMSGSIZE;
    case Intake::Next::malformed:
      return -EBADMSG;
    case Intake::Next::part_of_header:
      if (hung_up_) return -ECONNRESET;
      startMessageDeadline();
      hold = true;
      return 0;
    case Intake::Next::nothing:
      hold = true;
      return 0;
    case Intake::Next::message:
    case Intake::Next::end:
      return 0;
  }
  return 0;
}

int Connection::processHolding(bool hold) {
  const InputInstead nothing(hold ? input_ : -1, hold ? emptySocket() : -1, socket_);
  const int r = sd_bus_process(bus_, nullptr);
  return r >= 0 && sd_bus_is_open(bus_) <= 0 ? -ECONNRESET : r;
}

/// In the handshake the library reads whatever there is, and fails when a descriptor comes with it: as it
/// does with the first call of a peer that does not wait. So it gets the handshake's end by itself.
int Connection::processLastLine(std::size_t bytes) {
  std::array<int, 2> pair{-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) return -errno;
  const FileDescriptor ours(pair[0]);
  const FileDescriptor librarys(pair[1]);
  std::string line(bytes, '\0');
  const auto size = static_cast<ssize_t>(bytes);
  if (::recv(socket_, line.data(), bytes, MSG_DONTWAIT) != size ||
      ::send(ours.get(), line.data(), bytes, MSG_NOSIGNAL) != size) {
    return -ECONNRESET;
  }
  const InputInstead instead(input_, librarys.get(), socket_);
  const int r = sd_bus_process(bus_, nullptr);
  return r >= 0 && sd_bus_is_open(bus_) <= 0 ? -ECONNRESET : r;
}

int Connection::process(bool hold) {
  took_message_ = false;
  // With nothing to write the library reads at once, and it takes a message whole.
  const std::uint64_t queued = queuedMessages();
  const bool whole = !hold && intake_.wholeMessageIsNext() && queued == 0;
  if (!whole) intake_.startCounting(socket_);
  const int r = processHolding(hold);
  if (r < 0) return r;
  const std::uint64_t taken = whole ? intake_.claimed() : takenBesides(queued);
  took_whole_ = whole && took_message_;
  // Another message than the one that was looked at: that one was dropped.
  if (took_message_ && intake_.serial() != 0 && intake_.serial() != taken_serial_) return -EBADMSG;
  if (!took_message_) {
    const int verdict = judge(intake_.noteNoMessage(taken, r == 0, limits_.message_bytes));
    return verdict < 0 ? verdict : r;
  }
  intake_.noteMessage(taken);
  if (!intake_.underWay() && std::exchange(under_way_, false)) deadline_.cancel();
  return r;
}

/// With something to write it reads only when it could not write a whole message.
std::uint64_t Connection::takenBesides(std::uint64_t queued_before) {
  return queuedMessages() < queued_before ? 0 : intake_.counted(socket_);
}

void Connection::noteTaken(sd_bus_message* message) {
  took_message_ = true;
  if (sd_bus_message_get_cookie(message, &taken_serial_) < 0) taken_serial_ = 0;
}

int Connection::judge(Intake::Progress progress) {
  switch (progress) {
    case Intake::Progress::none:
      return 0;
    case Intake::Progress::part:
      startMessageDeadline();
      return 0;
    case Intake::Progress::dropped:
      return -EBADMSG;
    case Intake::Progress::too_large:
      return -EMSGSIZE;
  }
  return 0;
}

/// Runs from the message's first byte; more of it gives no more time.
void Connection::startMessageDeadline() {
  if (std::exchange(under_way_, true)) return;
  deadline_ = Timer(dispatch_time(DISPATCH_TIME_NOW, limits_.message_nanoseconds),
                    dispatch_get_global_queue(0, 0), [weak = weak_from_this()] {
                      if (const auto connection = weak.lock())
                        connection->interrupt("a message took too long");
                    });
}

void Connection::watchForWriting() {
  const int wanted = sd_bus_get_events(bus_);
  const bool watch = wanted > 0 && (wanted & POLLOUT) != 0;
  if (watch == out_watched_) return;
  out_watched_ = watch;
  source_.setEvents(EPOLLIN | EPOLLRDHUP | (watch ? EPOLLOUT : 0U));
}

}  // namespace kelvane::xpc
