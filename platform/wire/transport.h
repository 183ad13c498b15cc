#pragma once

// Messages over one connected local stream socket.
//
// Reading. One `recvmsg` at a time goes into a buffer that all transports of a thread share; whole messages
// are handed out from there without a copy. The transport keeps only incomplete messages, in memory that
// grows with what arrives, never with what is claimed. Every byte and descriptor is charged to the account
// before the kernel is asked for it.
//
// Descriptors. They belong to the message whose bytes they came with, and its header must state exactly how
// many there are. These end the connection, and all received descriptors are closed: a count that is too low
// or too high; a descriptor during the handshake, or before this side agreed to take any; a descriptor that
// the kernel had to drop (MSG_CTRUNC). If none are accepted, the kernel is given no room for them. One read
// may return earlier bytes before those that carry descriptors (the kernel joins them), but never bytes after
// those.
//
// Writing. As much of a message as the socket accepts is sent at once; the rest is kept, charged to the
// account, until `flush`. A client's handshake is sent with the first message, in one write. Messages that
// carry descriptors, and all after them, wait until the peer has agreed to take descriptors.
//
// Not thread-safe; the owner locks. Nothing here blocks, and there are no time limits. The socket may be
// watched edge-triggered (EPOLLET):
//  * `drained` means that the socket was empty; later bytes are reported as a new edge. The end is an
//    exception: it may have been reported together with the last bytes. So once the peer has hung up
//    (EPOLLRDHUP, EPOLLHUP, EPOLLERR), call `receive` until it returns `ended`.
//  * wantsToWrite() becomes true only when the kernel took less than it was given, or may take more at once:
//    begin to watch then (EPOLL_CTL_MOD asks the kernel for the present state), and flush on each report.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/account.h"
#include "platform/wire/handshake.h"
#include "platform/wire/header.h"
#include "platform/wire/kept_bytes.h"
#include "platform/wire/send_queue.h"
#include "platform/wire/writer.h"

namespace kelvane::wire {

struct TransportOptions {
  bool takes_descriptors = false;  // whether the peer may pass any
  bool passes_descriptors = true;  // whether a client may send any; a server uses the above
  std::size_t longest_message = 32U << 20;
  std::size_t most_descriptors = 16;  // with one message
};

class Transport {
 public:
  enum class Side { client, server };

  /// A complete message. What it points to is valid until the handler returns, except descriptors and charges
  /// that the handler moves out.
  struct Received {
    Message message;
    std::span<FileDescriptor> descriptors;
    Charge bytes;  // Resource::received_bytes; the handler releases it when it is done with the message
    Charge descriptor_charge;  // Resource::descriptors; held while the handler keeps those it took
  };
  /// Returns whether to continue with the next message; after false the rest waits for the next `receive`.
  /// The handler may call `send` and `flush`, but not `receive`, and must not destroy the transport.
  using Handler = std::function<bool(Received&)>;

  enum class Outcome {
    drained,  // the socket holds nothing more for now
    more,     // there may be more: call again, after other connections had their turn
    no_room,  // the account is at its limit: call again when some of `missing` is released
    ended,    // the peer closed, or violated the protocol; see `reason`
  };

  /// `socket` is connected and non-blocking. The peer's costs are charged to `account`.
  Transport(FileDescriptor socket, Side side, uid_t peer_or_self, std::shared_ptr<Account> account,
            const TransportOptions& options);
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  ~Transport();

  /// Reads once and hands out complete messages.
  Outcome receive(const Handler& handler);

  /// Assigns a serial, sends the message or keeps what the socket does not accept, and returns the serial.
  /// Returns 0 if the message is not sent; `error` is then EPIPE (the peer is gone), ENOBUFS (the account has
  /// no room for unread data), EOPNOTSUPP (the peer takes no descriptors), EINVAL (more descriptors than the
  /// kernel can pass, or a message that the writer refused), or the error of the system call (EMFILE,
  /// ETOOMANYREFS, EBADF).
  std::uint32_t send(Outgoing& message, int& error);
  /// For a client that has nothing to send yet: sends its handshake alone.
  void startHandshake();
  /// Sends what is kept. False if the peer is gone.
  bool flush();

  [[nodiscard]] int socket() const { return socket_.get(); }
  [[nodiscard]] bool isEstablished() const { return established_; }
  /// Whether a message has been received in part.
  [[nodiscard]] bool isMessageUnderWay() const;
  /// Whether to watch for room to write.
  [[nodiscard]] bool wantsToWrite() const;
  /// Bytes not yet sent, without the handshake.
  [[nodiscard]] std::uint64_t queuedBytes() const;
  /// The next message gets the serial after this one; for tests of the wrap-around.
  void setLastSerial(std::uint32_t serial) { last_serial_ = serial; }
  /// After `no_room`: what to wait for, received_bytes or descriptors.
  [[nodiscard]] Resource missing() const { return missing_; }
  /// Why the transport ended, as a readable message. Empty before that.
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  using Handshake = std::variant<std::monostate, ServerHandshake, ClientHandshake>;

  struct Progress {
    Outcome outcome;
    std::size_t bytes = 0;
  };

  // Reading.
  Outcome receiveOnce(const Handler& handler);
  Outcome readIntoShared(const Handler& handler);
  Outcome readBehindKept(const Handler& handler);
  Progress read(std::span<std::byte> room);
  bool chargeDescriptors(std::size_t& count);
  Outcome judge(const ReadResult& result, std::size_t room);
  void handOutKept(const Handler& handler);
  void handOut(std::span<const std::byte>& input, const Handler& handler);
  bool handOutNext(std::span<const std::byte>& input, const Handler& handler);
  std::size_t nextMessage(std::span<const std::byte> input);
  bool handOutMessage(const Message& message, std::size_t size, const Handler& handler);
  void advanceHandshake(std::span<const std::byte>& input);
  void establish(bool passes_descriptors);
  void end(std::string reason);
  void dropInput();

  // Writing.
  int refusalOf(const Outgoing& message) const;
  bool mustWait(const Outgoing& message) const;
  bool isHeld(bool carries_descriptors) const;
  int sendNow(const Outgoing& message);
  int keepRest(const Outgoing& message, std::size_t sent, Charge room);
  void beginHandshake();
  WriteResult writeOnce();
  int failed(int error);
  void abandonOutput();

  const Side side_;
  const TransportOptions options_;
  FileDescriptor socket_;
  std::string reason_;

  Handshake handshake_;  // until it is done
  bool established_ = false;
  bool passes_descriptors_ = false;  // agreed

  KeptBytes kept_;
  bool stopped_ = false;                     // the handler returned false; messages are kept
  std::size_t claimed_ = 0;                  // size of the message that kept_ begins with; 0 if unknown
  Charge received_charge_;                   // for kept_
  std::vector<FileDescriptor> descriptors_;  // of messages not yet handed out
  std::size_t carried_ = 0;                  // of these, the least that the current message must state
  Charge descriptor_charge_;                 // for descriptors_
  Resource missing_ = Resource::received_bytes;

  bool started_ = false;          // a client's handshake has begun
  bool writable_ = true;          // until the peer is gone
  std::string handshake_output_;  // not yet sent
  SendQueue queue_;
  std::uint32_t last_serial_ = 0;
};

}  // namespace kelvane::wire
