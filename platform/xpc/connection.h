#pragma once

// A message connection: one local stream socket, D-Bus spoken peer to peer.
//
// The rules:
//
//  * A connection is made, given its objects and handlers, and resumed; before that nothing is read or sent.
//    From then on it keeps itself alive until it has ended.
//  * It has a serial queue of its own. The exported object's methods, the replies to calls, and every handler
//    run on that queue, in the order in which the messages came. They may block: reading, replying and
//    calling continue on other threads.
//  * It ends once: interrupted, when the far end closes it, dies, violates the protocol or exceeds a limit;
//    or invalidated, by `invalidate` or because it could not be made. The error handlers of outstanding calls
//    are called first, then the handler for that kind of end. An interrupted connection can still be
//    invalidated, which calls the other handler. Handlers are called once and dropped.
//  * A call before `resume` fails as one does after the end.
//  * A reply comes at most once. A call whose connection ends gets no reply but an error.
//
// Limits. The account of the peer's user is charged for the connection, for received data until it is
// handled, for sent data until the peer reads it, for descriptors and for calls. While the account is at a
// limit, the connection is not read. Each connection has five seconds for the handshake, ten for each message
// from its first byte, and 32 MiB per message. It is not read while more than 64 of its calls wait for their
// handler or have a reply that the peer has not read. A malformed message ends the connection.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/foundation/function_ref.h"
#include "platform/wire/account.h"
#include "platform/wire/transport.h"
#include "platform/xpc/credentials.h"
#include "platform/xpc/endpoint.h"
#include "platform/xpc/error.h"
#include "platform/xpc/incoming_call.h"
#include "platform/xpc/outgoing_call.h"
#include "platform/xpc/remote_interface.h"
#include "platform/xpc/unread_replies.h"

namespace kelvane::xpc {

struct ConnectionLimits {
  std::int64_t handshake_nanoseconds = 5'000'000'000;
  std::int64_t message_nanoseconds = 10'000'000'000;
  std::uint64_t message_bytes = 32ULL << 20;
  std::uint64_t calls_in_hand = 64;
};

class Connection final : public std::enable_shared_from_this<Connection> {
 public:
  using ErrorHandler = xpc::ErrorHandler;

  // Each may fail. The connection is still created, and is invalidated as soon as it is resumed.
  // A connection through an endpoint is charged to the user who passed the endpoint, one to a
  // path to the user who listens there.
  static std::shared_ptr<Connection> initWithListenerEndpoint(const Endpoint& endpoint);
  static std::shared_ptr<Connection> initWithSocketPath(const std::string& path);
  /// The side that answers the handshake, on a socket that the peer connected. `cost` is the charge for it
  /// (Resource::connections) in `account`.
  static std::shared_ptr<Connection> initAccepting(FileDescriptor socket, PeerCredentials credentials,
                                                   std::shared_ptr<wire::Account> account, wire::Charge cost);

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // --- before `resume` ---
  template <class Protocol>
  void setExportedObject(std::shared_ptr<Protocol> object) {
    exported_interface_ = &RemoteInterface<Protocol>::description();
    exported_object_ = std::move(object);
  }
  void setInterruptionHandler(Block handler);
  void setInvalidationHandler(Block handler);
  void setLimits(const ConnectionLimits& limits) { limits_ = limits; }
  void resume();

  // --- any time, any thread ---

  /// A proxy for the object that the far end exports. A call that will get no reply calls the error handler
  /// once, on this connection's queue. Calls are sent in order and do not block.
  template <class Protocol>
  [[nodiscard]] std::shared_ptr<Protocol> remoteObjectProxyWithErrorHandler(ErrorHandler handler) {
    return std::make_shared<typename RemoteInterface<Protocol>::Proxy>(shared_from_this(),
                                                                       std::move(handler));
  }

  /// Ends the connection; nothing is sent or read after this returns.
  void invalidate();

  /// The process at the other end: the one that connected or, on a connection to a socket path, the one that
  /// listens there. Empty for a connection through an endpoint, or one that could not be made.
  [[nodiscard]] const std::optional<PeerCredentials>& credentials() const { return credentials_; }
  /// The account charged for this connection; null if it could not be created.
  [[nodiscard]] const std::shared_ptr<wire::Account>& account() const { return account_; }
  /// Whether the handshake was ever completed. A peer that refuses the connection ends it earlier.
  [[nodiscard]] bool wasEstablished();
  [[nodiscard]] const dispatch_queue_t& queue() const { return queue_; }

  /// The connection whose message the calling thread is handling; null if there is none.
  static std::shared_ptr<Connection> current();

  /// For proxies. `write` writes the arguments, which have this signature, and is called before this returns.
  void call(const InterfaceDescription& interface, const std::string& signature,
            FunctionRef<void(wire::Writer&)> write, std::unique_ptr<OutgoingCall> call);
  /// For IncomingCall: sends the reply or error to a received call, unless the connection has ended.
  void sendAnswer(wire::Outgoing& answer, std::uint32_t serial);

 private:
  struct Ending;  // work that remains after the lock is released
  struct Round;   // of reading
  /// The far end of a connection through an endpoint, kept here until there is data for it to read.
  struct UnpassedEnd {
    Endpoint endpoint;
    FileDescriptor theirs;
  };
  enum class State { made, open, ended };
  enum class Cause { interruption, invalidation };
  /// Whether it is ensured that a client's handshake is sent even if no call is made.
  enum class Greeting { none_due, due };
  using Lock = std::unique_lock<std::mutex>;
  using Received = wire::Transport::Received;

  Connection(wire::Transport::Side side, FileDescriptor socket);

  // All with mutex_ held.
  [[nodiscard]] bool open();
  void finish(Cause cause, const std::string& why);
  void deliver(std::unique_ptr<OutgoingCall> answered);
  void deliver(std::shared_ptr<IncomingCall> call);

  void read();
  [[nodiscard]] bool peerMustWait() const;
  [[nodiscard]] bool hasNothingLeft() const;
  void endOfInput();
  void awaitRelease(wire::Resource resource);
  void goOnAfter(wire::Transport::Outcome progress);
  void updateDeadlines(bool took_message);
  void watchForWriting();
  void passTheirEnd();

  [[nodiscard]] bool take(Round& round, Received& received);
  void takeCall(Round& round, Received& received);
  void prepareCall(Round& round, Received& received, const MethodDescription& method);
  void takeReply(Round& round, Received& received);
  void answerStandardCall(Round& round, const Received& received);
  [[nodiscard]] bool sendAnswerOrRefusal(wire::Outgoing& answer, std::uint32_t serial);

  void handleEvents(std::uint32_t events);
  void interrupt(const char* why);
  void noteHandled();

  // Constant after `resume`.
  const wire::Transport::Side side_;
  const dispatch_queue_t queue_;
  std::optional<PeerCredentials> credentials_;
  std::shared_ptr<wire::Account> account_;
  ConnectionLimits limits_;
  const InterfaceDescription* exported_interface_ = nullptr;
  EventSource source_;

  std::atomic<bool> awaits_release_{false};  // not read until the account releases something

  std::mutex mutex_;  // guards all below
  State state_ = State::made;
  bool invalidated_ = false;
  bool established_ = false;
  wire::Charge cost_;        // Resource::connections
  FileDescriptor unopened_;  // the socket, until the transport owns it
  std::optional<UnpassedEnd> unpassed_;
  std::optional<wire::Transport> transport_;  // while open
  Greeting greeting_ = Greeting::none_due;
  bool hung_up_ = false;  // nothing more will arrive than the socket already holds
  bool goes_on_ = true;   // the transport was not told to keep messages that it has read
  bool out_watched_ = false;
  std::uint64_t waiting_calls_ = 0;  // handed to the queue, and not yet handled
  UnreadReplies unread_replies_;
  Timer deadline_;  // for the handshake, then for a partly received message
  std::shared_ptr<void> exported_object_;
  Block interruption_handler_;
  Block invalidation_handler_;
  std::map<std::uint32_t, std::unique_ptr<OutgoingCall>> outstanding_;  // by serial, so in order
  std::shared_ptr<Connection> self_;                                    // while open
};

/// What every proxy is made of.
class ProxyBase {
 public:
  ProxyBase(std::shared_ptr<Connection> connection, ErrorHandler on_error)
      : connection_(std::move(connection)),
        on_error_(std::make_shared<const ErrorHandler>(std::move(on_error))) {}

 protected:
  template <auto Method, class ReplyFunction, class... Arguments>
  void send(const char* name, ReplyFunction reply, const Arguments&... arguments) {
    using Traits = details::MethodTraits<decltype(Method)>;
    static_assert(std::is_same_v<typename Traits::All, std::tuple<Arguments..., ReplyFunction>>,
                  "the proxy sends what the method takes");
    connection_->call(
        RemoteInterface<typename Traits::Protocol>::description(), Traits::signature(),
        [&]([[maybe_unused]] wire::Writer& out) { (Wire<Arguments>::write(out, arguments), ...); },
        std::make_unique<details::TypedReply<ReplyFunction>>(name, on_error_, std::move(reply)));
  }

 private:
  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<const ErrorHandler> on_error_;
};

}  // namespace kelvane::xpc
