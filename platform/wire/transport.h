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
// came are closed. Where none are taken, the kernel is given no room for them.
//
// Writing. A message is sent at once as far as the socket takes it; the rest is kept, charged to the account,
// until `flush`. A client's handshake goes out with the first message, in one write.
//
// Not thread-safe; its owner has a lock. Nothing here blocks, waits or knows of time.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/account.h"
#include "platform/wire/header.h"
#include "platform/wire/writer.h"

namespace kelvane::wire {

struct TransportOptions {
  bool takes_descriptors = false;  // whether a peer may pass any
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
  };
  /// Returns whether to go on with the next message; after false the rest waits for the next `receive`.
  using Handler = std::function<bool(Received&)>;

  enum class Outcome {
    drained,  // the socket holds nothing more for now
    more,     // there may be more: call again, after others had their turn
    no_room,  // the account has none left: call again when some was released
    ended,    // the peer closed, or broke a rule: `reason` says which
  };

  /// `socket` is connected and non-blocking. `account` pays for the peer.
  Transport(FileDescriptor socket, Side side, uid_t peer_or_self, std::shared_ptr<Account> account,
            const TransportOptions& options);

  /// Reads once and hands out what is whole.
  Outcome receive(const Handler& handler);

  /// Sends a message, or keeps what the socket does not take; gives it its serial, which is returned. 0 when
  /// nothing was sent and nothing will be: the peer is gone (EPIPE), or its account has no room for what it
  /// does not read (ENOBUFS, in `error`), or it takes no descriptors (EOPNOTSUPP).
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
  [[nodiscard]] std::uint64_t queuedBytes() const;
  /// Why the transport ended; for people.
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  FileDescriptor socket_;
  bool established_ = false;
  std::string reason_;
  // The implementation is the transport's.
};

}  // namespace kelvane::wire
