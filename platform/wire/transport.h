#pragma once

// Messages over one connected local stream socket.
//
// Reading. One `recvmsg` at a time goes into a buffer that all transports of a thread share; whole messages
// are handed out from there without a copy. Only the part of a message that has not yet come to its end is
// kept by the transport, in memory that grows with what arrives, never with what is claimed. Every byte and
// descriptor is charged to the account before the kernel is asked for it.
//
// Descriptors. They belong to the message whose bytes they came with, which must name exactly that many. A
// message that names fewer or more than came, a descriptor that comes with the handshake, or before the peer
// was told that it may pass any, and a kernel that had to drop some (MSG_CTRUNC) end the connection. All that
// came are closed. Where none are taken, the kernel is given no room for them. What is read at once may begin
// with bytes from before the descriptors (the kernel joins these), but never goes on behind what they came
// with.
//
// Writing. A message is sent at once as far as the socket takes it; the rest is kept, charged to the account,
// until `flush`. A client's handshake goes out with the first message, in one write. Messages that carry
// descriptors, and all behind them, wait until the peer agreed to take any.
//
// Not thread-safe; its owner has a lock. Nothing here blocks, waits or knows of time. The socket may be
// watched for changes only (EPOLLET):
//  * `drained` means that the kernel had nothing more when it was asked; what comes later is a change. The
//  end
//    is the exception: it may have been reported together with the last bytes. So once the peer has hung up
//    (EPOLLRDHUP, EPOLLHUP, EPOLLERR), call `receive` until it says `ended`.
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
  bool takes_descriptors = false;  // whether a peer may pass any
  bool passes_descriptors = true;  // whether a client's own messages may carry any; servers go by the above
  std::size_t longest_message = 32U << 20;
  std::size_t most_descriptors = 16;  // with one message
};

class Transport {
 public:
  enum class Side { client, server };

  /// A message that came whole. What it points to is gone when the handler returns, but for what the handler
  /// takes out of `descriptors` and the charges it takes over.
  struct Received {
    Message message;
    std::span<FileDescriptor> descriptors;
    Charge bytes;  // Resource::received_bytes; dropped by the handler when it is done with the message
    Charge descriptor_charge;  // Resource::descriptors; for as long as the handler keeps those it took
  };
  /// Returns whether to go on with the next message; after false the rest waits for the next `receive`. It
  /// may call `send` and `flush`, but not `receive`, and must not destroy the transport.
  using Handler = std::function<bool(Received&)>;

  enum class Outcome {
    drained,  // the socket holds nothing more for now
    more,     // there may be more: call again, after others had their turn
    no_room,  // the account has none left: call again when some of `missing` was released
    ended,    // the peer closed, or broke a rule: `reason` says which
  };

  /// `socket` is connected and non-blocking. `account` pays for the peer.
  Transport(FileDescriptor socket, Side side, uid_t peer_or_self, std::shared_ptr<Account> account,
            const TransportOptions& options);
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  ~Transport();

  /// Reads once and hands out what is whole.
  Outcome receive(const Handler& handler);

  /// Sends a message, or keeps what the socket does not take; gives it its serial, which is returned. 0 when
  /// nothing was sent and nothing will be; `error` is then EPIPE: the peer is gone; ENOBUFS: its account has
  /// no room for what it does not read; EOPNOTSUPP: it takes no descriptors; EINVAL: more descriptors than
  /// the kernel passes, or a message that the writer refused; or what the system call said (EMFILE,
  /// ETOOMANYREFS, EBADF).
  std::uint32_t send(Outgoing& message, int& error);
  /// For a client that has nothing to send yet: lets its handshake go out by itself.
  void startHandshake();
  /// Sends what is kept. False when the peer is gone.
  bool flush();

  [[nodiscard]] int socket() const { return socket_.get(); }
  [[nodiscard]] bool isEstablished() const { return established_; }
  /// Part of a message has come, and its end has not.
  [[nodiscard]] bool isMessageUnderWay() const;
  /// Whether to watch for room to write.
  [[nodiscard]] bool wantsToWrite() const;
  /// Not yet sent, the handshake left out.
  [[nodiscard]] std::uint64_t queuedBytes() const;
  /// The next message gets the one behind it; for tests of what happens at the end of the numbers.
  void setLastSerial(std::uint32_t serial) { last_serial_ = serial; }
  /// After `no_room`: what to wait for, received_bytes or descriptors.
  [[nodiscard]] Resource missing() const { return missing_; }
  /// Why the transport ended; for people. Empty as long as it has not.
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
  bool stopped_ = false;     // a handler did not want what is kept now
  std::size_t claimed_ = 0;  // by the message that kept_ begins with; 0 as long as that is not known
  Charge received_charge_;   // for kept_
  std::vector<FileDescriptor> descriptors_;  // of messages that were not yet handed out
  std::size_t carried_ = 0;                  // of these, what the message under way must name at least
  Charge descriptor_charge_;                 // for descriptors_
  Resource missing_ = Resource::received_bytes;

  bool started_ = false;          // a client's handshake has begun
  bool writable_ = true;          // until the peer is gone
  std::string handshake_output_;  // not yet sent
  SendQueue queue_;
  std::uint32_t last_serial_ = 0;
};

}  // namespace kelvane::wire
