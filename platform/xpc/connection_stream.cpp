// How a connection reads and writes: everything between the socket's readiness and single messages.
//
// Readiness is reported on change only, and each round reads once, so that no connection keeps others
// waiting. So every way out of a round leaves one thing behind that is sure to start the next one when there
// is something to do:
//
//  * The socket was drained, and the peer has not hung up: the kernel reports the next byte, and the end.
//    What came between the read and the round's end was reported too: EventSource runs once more when
//    anything is reported during a run.
//  * There may be more, or the peer has hung up, which is reported once, maybe with the last bytes: the round
//    asks for the next one itself.
//  * The peer must wait for its own calls or for replies that it has not read. The handler that returns
//    (noteHandled) asks for a round; so does the kernel when the peer has read something, because while
//    anything is queued the socket is watched for room to write.
//  * The account has no room. It asks for a round when something is released, also when that happens before
//    it was told to.
//
// A round that is asked for once too often reads nothing and costs one system call.

#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <utility>

#include "platform/xpc/connection_internal.h"

namespace kelvane::xpc {

using Progress = wire::Transport::Outcome;

void Connection::handleEvents(std::uint32_t events) {
  const Lock lock(mutex_);
  if (!transport_) return;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) hung_up_ = true;
  if (std::exchange(greeting_, Greeting::none_due) == Greeting::due) {
    transport_->startHandshake();  // unless a call has taken it along
    watchForWriting();
    passTheirEnd();
    if (events == 0 || !transport_) return;
  }
  if (transport_->wantsToWrite()) {
    transport_->flush();  // when the peer is gone, what it sent before is still read
    unread_replies_.noteQueued(transport_->queuedBytes());
  }
  read();
}

/// Reading stops between two messages; handlers end in their own time.
bool Connection::peerMustWait() const {
  return unread_replies_.count() + waiting_calls_ > limits_.calls_in_hand;
}

void Connection::read() {
  if (peerMustWait() || awaits_release_.load()) return hasNothingLeft() ? endOfInput() : watchForWriting();
  Round round;
  if (exported_interface_ != nullptr) {
    round.next_call = wire::Charge::of(account_, wire::Resource::calls, 1);
    if (!round.next_call) {
      if (hasNothingLeft()) return endOfInput();
      if (established_) deadline_.cancel();
      return awaitRelease(wire::Resource::calls);
    }
  }
  const Progress progress =
      transport_->receive([this, &round](Received& received) { return goes_on_ = take(round, received); });
  if (!round.broken.empty() || progress == Progress::ended) {
    finish(Cause::interruption, round.broken.empty() ? transport_->reason() : round.broken);
    return;
  }
  if (progress != Progress::more) goes_on_ = true;  // nothing was left that it could have kept
  if (progress == Progress::no_room && hasNothingLeft()) return endOfInput();
  updateDeadlines(round.took_message);
  unread_replies_.noteQueued(transport_->queuedBytes());
  watchForWriting();
  goOnAfter(progress);
}

/// Whether only the end is left to read. While the socket is not read, the end goes unnoticed.
bool Connection::hasNothingLeft() const {
  int bytes = 0;
  return hung_up_ && goes_on_ && ::ioctl(transport_->socket(), SIOCINQ, &bytes) == 0 && bytes == 0;
}

void Connection::endOfInput() { finish(Cause::interruption, "the peer closed the connection"); }

void Connection::goOnAfter(Progress progress) {
  if (progress == Progress::no_room) {
    awaitRelease(transport_->missing());
  } else if (progress == Progress::more || hung_up_) {
    if (!peerMustWait()) source_.again();
  }
}

/// Once at a time, or a peer that sends on while it must wait would grow the account's list.
void Connection::awaitRelease(wire::Resource resource) {
  if (awaits_release_.exchange(true)) return;
  account_->whenReleased(resource, weak_from_this(), [this] {
    awaits_release_.store(false);
    source_.again();
  });
}

/// The time limit of a message starts at its first byte, and further bytes do not extend it. It is paused
/// while the peer must wait for its own calls or replies. It is not paused while the account has no room: the
/// room may be taken by incomplete messages only, which would wait for each other.
void Connection::updateDeadlines(bool took_message) {
  if (!established_) {
    if (!transport_->isEstablished()) return;
    established_ = true;
    deadline_.cancel();
  }
  if (!transport_->isMessageUnderWay() || peerMustWait()) {
    deadline_.cancel();
  } else if (took_message || !deadline_.isSet()) {
    deadline_ = Timer(dispatch_time(DISPATCH_TIME_NOW, limits_.message_nanoseconds),
                      dispatch_get_global_queue(0, 0), [weak = weak_from_this()] {
                        if (const auto connection = weak.lock())
                          connection->interrupt("a message took too long");
                      });
  }
}

/// Called after data was written, so that the listener finds it in the socket that it receives.
void Connection::passTheirEnd() {
  if (!unpassed_) return;
  const bool passed = unpassed_->endpoint.pass(unpassed_->theirs);
  unpassed_.reset();
  if (!passed) finish(Cause::invalidation, "the connection could not be made");
}

void Connection::watchForWriting() {
  const bool watch = transport_->wantsToWrite();
  if (watch == out_watched_) return;
  out_watched_ = watch;
  source_.setEvents(EPOLLIN | EPOLLRDHUP | (watch ? EPOLLOUT : 0U));
}

}  // namespace kelvane::xpc
