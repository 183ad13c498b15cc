#pragma once

// A message connection: one local stream socket, D-Bus spoken peer to peer.
//
// The rules:
//
//  * A connection is made, given its objects and handlers, and resumed; before that nothing is read or sent.
//    From then on it keeps itself alive until it has ended.
//  * It has a serial queue of its own. The exported object's methods, the replies to calls, and every handler
//    run on that queue, in the order in which the messages came. They may block: reading, replying and
//    calling go on meanwhile, on whatever thread.
//  * It ends once: interrupted, when the far end closes it, dies, breaks the protocol or a limit; or
//    invalidated, by `invalidate` or because it could not be made. What is outstanding then gets its error
//    handler called, and then the one handler that fits is called. An interrupted connection can still be
//    invalidated, which calls the other handler. Handlers are called once and dropped.
//  * A call before `resume` fails as one does after the end.
//  * A reply comes at most once. A call whose connection ends gets no reply but an error.
//
// What the peer may cost: five seconds for the handshake, ten for a message under way, 32 MiB for a message.
// Nothing more is read from it while more than 64 of its calls wait for their handler or have a reply that it
// has not read, or more than 32 MiB of calls wait. Whatever it sends costs its own connection only. A message
// that is none ends the connection.

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/xpc/credentials.h"
#include "platform/xpc/endpoint.h"
#include "platform/xpc/error.h"
#include "platform/xpc/intake.h"
#include "platform/xpc/remote_interface.h"

struct sd_bus;

namespace kelvane::xpc {

struct ConnectionLimits {
  std::int64_t handshake_nanoseconds = 5'000'000'000;
  std::int64_t message_nanoseconds = 10'000'000'000;
  std::uint64_t message_bytes = 32ULL << 20;
  std::uint64_t calls_in_hand = 64;
};

class Connection final : public std::enable_shared_from_this<Connection> {
 public:
  using ErrorHandler = std::function<void(const Error&)>;

  // Each may fail; the connection is then made all the same, and is invalidated as soon as it is resumed.
  static std::shared_ptr<Connection> initWithListenerEndpoint(const Endpoint& endpoint);
  static std::shared_ptr<Connection> initWithSocketPath(const std::string& path);
  /// The side that answers the handshake, on a socket that somebody else has connected.
  static std::shared_ptr<Connection> initAccepting(FileDescriptor socket, PeerCredentials credentials);

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
  /// For listeners: called once when the socket is closed, on any thread. It must not use the connection.
  void setClosedHandler(Block handler);
  void setLimits(const ConnectionLimits& limits) { limits_ = limits; }
  void resume();

  // --- any time, any thread ---

  /// A stand-in for the object that the far end exports. Each call through it that will get no reply calls
  /// the error handler once, on this connection's queue. Calls are sent in order; none blocks.
  template <class Protocol>
  [[nodiscard]] std::shared_ptr<Protocol> remoteObjectProxyWithErrorHandler(ErrorHandler handler) {
    return std::make_shared<typename RemoteInterface<Protocol>::Proxy>(shared_from_this(),
                                                                       std::move(handler));
  }

  /// Ends the connection; nothing is sent or read any more when this returns.
  void invalidate();

  /// Who is at the other end: who connected, or, on a connection to a socket path, who listens there. Empty
  /// for a connection through an endpoint, and for one that could not be made.
  [[nodiscard]] const std::optional<PeerCredentials>& credentials() const { return credentials_; }
  /// Whether the handshake was ever completed. A peer that refuses to be connected to ends it before.
  [[nodiscard]] bool wasEstablished();
  [[nodiscard]] const dispatch_queue_t& queue() const { return queue_; }

  /// The connection that delivered the message which the calling thread is handling; null elsewhere.
  static std::shared_ptr<Connection> current();

  /// For proxies. `write` appends the arguments and is called before this returns; `read` makes the block
  /// that delivers the reply.
  using Write = std::function<int(sd_bus_message*)>;
  using Read = std::function<int(sd_bus_message*, Block& made)>;
  void call(const InterfaceDescription& interface, const char* member, const char* reply_signature,
            const Write& write, Read read, ErrorHandler on_error);

 private:
  class Incoming;
  struct PendingCall;
  struct Ending;  // what is left to do once the lock is released
  friend struct BusCallbacks;
  enum class State { made, open, ended };
  enum class Cause { interruption, invalidation };
  using Lock = std::unique_lock<std::mutex>;

  explicit Connection(bool accepting);

  // All with mutex_ held.
  int startBus();
  int step();
  int stepHandshake();
  [[nodiscard]] std::uint64_t queuedMessages() const;
  [[nodiscard]] bool peerMustWait() const;
  int lookAhead(bool& hold);
  int process(bool hold);
  std::uint64_t takenBesides(std::uint64_t queued_before);
  [[nodiscard]] bool somethingMayBeLeft() const;
  int processLastLine(std::size_t bytes);
  int processHolding(bool hold);
  void noteTaken(sd_bus_message* message);
  int judge(Intake::Progress progress);
  void startMessageDeadline();
  void watchForWriting();
  void deliver(Block block);
  void deliverError(ErrorHandler handler, Error error);
  int acceptCall(sd_bus_message* message);
  int acceptReply(PendingCall& pending, sd_bus_message* message);
  void finish(Lock& lock, Cause cause, const char* why);

  void handleEvents(std::uint32_t events);
  void interrupt(const char* why);
  void answer(std::uint64_t call, const std::function<int(sd_bus_message*)>& write);
  void answerError(std::uint64_t call, const std::string& name, const std::string& message);
  void forget(std::uint64_t call);
  void noteHandled(std::uint64_t bytes);

  // Constant after `resume`.
  const bool accepting_;
  const dispatch_queue_t queue_;
  std::optional<PeerCredentials> credentials_;
  ConnectionLimits limits_;
  const InterfaceDescription* exported_interface_ = nullptr;

  std::mutex mutex_;  // guards all below, the bus and every message of it included
  State state_ = State::made;
  bool invalidated_ = false;
  FileDescriptor unopened_;  // the socket, until the bus owns it
  int socket_ = -1;
  sd_bus* bus_ = nullptr;
  int input_ = -1;          // a copy of the socket to be read from, when an object is exported
  bool ready_ = false;      // the handshake is over
  bool under_way_ = false;  // the bus or the socket holds part of a message
  bool hung_up_ = false;    // nothing more will come than what the socket holds
  bool out_watched_ = false;
  bool took_message_ = false;  // the bus handed out a message when it was last told to process
  std::uint64_t taken_serial_ = 0;
  bool writes_first_ = false;  // the handshake has just ended; what waited for that goes out first
  bool took_whole_ = false;    // and it took nothing but that, as had been foreseen
  Intake intake_;
  std::uint64_t waiting_calls_ = 0;  // handed to the queue, and not yet handled
  std::uint64_t waiting_bytes_ = 0;
  EventSource source_;
  Timer deadline_;
  std::shared_ptr<void> exported_object_;
  Block interruption_handler_;
  Block invalidation_handler_;
  Block closed_handler_;
  std::list<PendingCall> outstanding_;
  std::unordered_map<std::uint64_t, sd_bus_message*> unanswered_;
  std::uint64_t next_call_ = 1;
  std::shared_ptr<Connection> self_;  // while open
};

/// What every proxy is made of.
class ProxyBase {
 public:
  ProxyBase(std::shared_ptr<Connection> connection, Connection::ErrorHandler on_error)
      : connection_(std::move(connection)), on_error_(std::move(on_error)) {}

 protected:
  template <auto Method, class ReplyFunction, class... Arguments>
  void send(const char* name, ReplyFunction reply, const Arguments&... arguments) {
    using Traits = details::MethodTraits<decltype(Method)>;
    static_assert(std::is_same_v<typename Traits::All, std::tuple<Arguments..., ReplyFunction>>,
                  "the proxy sends what the method takes");
    static const std::string reply_signature = Traits::Replies::signature();
    connection_->call(
        RemoteInterface<typename Traits::Protocol>::description(), name, reply_signature.c_str(),
        [&]([[maybe_unused]] sd_bus_message* message) {
          int r = 0;
          ((r = r < 0 ? r : Wire<Arguments>::write(message, arguments)), ...);
          return r;
        },
        [reply = std::move(reply)](sd_bus_message* message, Block& made) mutable {
          return Traits::Replies::read(message, std::move(reply), made);
        },
        on_error_);
  }

 private:
  const std::shared_ptr<Connection> connection_;
  const Connection::ErrorHandler on_error_;
};

}  // namespace kelvane::xpc
