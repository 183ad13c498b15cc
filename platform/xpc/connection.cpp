#include "platform/xpc/connection.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/xpc/bus_callbacks.h"

namespace kelvane::xpc {
namespace {

constexpr int send_buffer_bytes = 128 << 10;
constexpr std::size_t fixed_header_bytes = 16;

thread_local const std::shared_ptr<Connection>* delivering = nullptr;

/// Marks the connection whose message the thread is handling.
class Delivery {
 public:
  explicit Delivery(const std::shared_ptr<Connection>& connection)
      : outer_(std::exchange(delivering, &connection)) {}
  ~Delivery() { delivering = outer_; }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

 private:
  const std::shared_ptr<Connection>* const outer_;
};

FileDescriptor connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return {};
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return {};
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    socket.reset();
  return socket;
}

int unreadBytes(int socket) {
  int bytes = 0;
  return ::ioctl(socket, FIONREAD, &bytes) == 0 ? bytes : 0;
}

bool isWritable(int socket) {
  pollfd state{socket, POLLOUT, 0};
  return ::poll(&state, 1, 0) > 0;
}

/// The whole size of the message that begins with this header, as its sender claims.
std::uint64_t claimedSize(const std::array<std::uint8_t, fixed_header_bytes>& header) {
  const bool big = header[0] == 'B';
  const auto number = [&](std::size_t at) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value |= std::uint64_t{header[at + (big ? 3 - i : i)]} << (8 * i);
    return value;
  };
  const std::uint64_t fields = (number(12) + 7) & ~std::uint64_t{7};
  return fixed_header_bytes + fields + number(4);
}

Error errorOf(sd_bus_message* message) {
  const sd_bus_error* const error = sd_bus_message_get_error(message);
  if (error == nullptr || error->name == nullptr)
    return {error_failed, "the peer sent an error without a name"};
  return {error->name, error->message != nullptr ? error->message : ""};
}

}  // namespace

struct Connection::PendingCall {
  Connection* connection;
  std::list<std::unique_ptr<PendingCall>>::iterator place;
  sd_bus_slot* slot = nullptr;
  std::string reply_signature;
  Read read;
  ErrorHandler on_error;
};

struct Connection::Ending {
  std::list<std::unique_ptr<PendingCall>> outstanding;
  std::shared_ptr<void> exported_object;
  std::shared_ptr<Connection> self;
  Block handler;
  Error error;
};

class Connection::Incoming final : public IncomingCall {
 public:
  Incoming(std::weak_ptr<Connection> connection, std::uint64_t call)
      : connection_(std::move(connection)), call_(call) {}
  ~Incoming() override {
    if (call_ == 0) return;
    if (const auto connection = connection_.lock()) connection->forget(call_);
  }
  void reply(const std::function<int(sd_bus_message*)>& write) override {
    if (const auto connection = connection_.lock()) connection->answer(call_, write);
  }
  void replyError(const std::string& name, const std::string& message) override {
    if (const auto connection = connection_.lock()) connection->answerError(call_, name, message);
  }
  /// The connection has dealt with the call itself.
  void disown() { call_ = 0; }

 private:
  const std::weak_ptr<Connection> connection_;
  std::uint64_t call_;
};

struct BusCallbacks {
  static int call(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    return static_cast<Connection*>(userdata)->acceptCall(message);
  }
  static int read(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/, const char* name,
                  sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    for (const PropertyDescription& known :
         static_cast<Connection*>(userdata)->exported_interface_->properties) {
      if (std::strcmp(known.name, name) == 0) return sd_bus_message_append(reply, "u", known.read());
    }
    return -ENOENT;
  }
  static int reply(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto& pending = *static_cast<Connection::PendingCall*>(userdata);
    return pending.connection->acceptReply(pending, message);
  }
};

// --- making and ending ---

Connection::Connection(bool accepting)
    : accepting_(accepting), queue_(dispatch_queue_create("com.orvel.xpc.connection")) {}

std::shared_ptr<Connection> Connection::initWithListenerEndpoint(const Endpoint& endpoint) {
  std::shared_ptr<Connection> connection(new Connection(false));
  connection->unopened_ = endpoint.open();
  return connection;
}

std::shared_ptr<Connection> Connection::initWithSocketPath(const std::string& path) {
  std::shared_ptr<Connection> connection(new Connection(false));
  connection->unopened_ = connectTo(path);
  return connection;
}

std::shared_ptr<Connection> Connection::initAccepting(FileDescriptor socket, PeerCredentials credentials) {
  std::shared_ptr<Connection> connection(new Connection(true));
  connection->unopened_ = std::move(socket);
  connection->credentials_ = std::move(credentials);
  return connection;
}

Connection::~Connection() {
  if (closed_handler_) closed_handler_();  // never resumed
}

std::shared_ptr<Connection> Connection::current() { return delivering != nullptr ? *delivering : nullptr; }

void Connection::setInterruptionHandler(Block handler) {
  const Lock lock(mutex_);
  interruption_handler_ = std::move(handler);
}

void Connection::setInvalidationHandler(Block handler) {
  const Lock lock(mutex_);
  invalidation_handler_ = std::move(handler);
}

void Connection::setClosedHandler(Block handler) {
  const Lock lock(mutex_);
  closed_handler_ = std::move(handler);
}

void Connection::resume() {
  Lock lock(mutex_);
  if (state_ != State::made) return;
  state_ = State::open;
  self_ = shared_from_this();
  const int r = unopened_ ? startBus() : -ENOTCONN;
  if (r < 0) {
    finish(lock, Cause::invalidation,
           {error_disconnected, std::string("cannot connect: ") + std::strerror(-r)});
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  deadline_ = Timer(dispatch_time(DISPATCH_TIME_NOW, limits_.handshake_nanoseconds),
                    dispatch_get_global_queue(0, 0), [weak] {
                      if (const auto connection = weak.lock())
                        connection->interrupt("the handshake took too long");
                    });
  source_ = EventSource(socket_, EPOLLIN | EPOLLRDHUP, [weak](std::uint32_t events) {
    if (const auto connection = weak.lock()) connection->handleEvents(events);
  });
  watchForWriting();
}

int Connection::startBus() {
  int r = sd_bus_new(&bus_);
  if (r < 0) return r;
  socket_ = unopened_.get();
  r = sd_bus_set_fd(bus_, socket_, socket_);
  if (r < 0) return r;
  static_cast<void>(unopened_.release());  // the bus closes it
  sd_bus_negotiate_fds(bus_, 1);
  if (accepting_) {
    sd_id128_t server{};
    sd_id128_randomize(&server);
    sd_bus_set_server(bus_, 1, server);
    r = sd_bus_add_object(bus_, nullptr, "/org/freedesktop/DBus", answerBusDriver, nullptr);
  }
  if (r >= 0 && exported_interface_ != nullptr) {
    r = sd_bus_add_object_vtable(bus_, nullptr, exported_interface_->path, exported_interface_->name,
                                 vtableOf(*exported_interface_, BusCallbacks::call, BusCallbacks::read),
                                 this);
  }
  if (r >= 0) r = sd_bus_start(bus_);
  // Starting enlarges the buffer beyond what a peer that does not read should cost.
  if (r >= 0) ::setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  return r;
}

void Connection::invalidate() {
  Lock lock(mutex_);
  if (invalidated_) return;
  invalidated_ = true;
  finish(lock, Cause::invalidation, {error_disconnected, "the connection was invalidated"});
}

void Connection::interrupt(const char* why) {
  Lock lock(mutex_);
  finish(lock, Cause::interruption, {error_disconnected, why});
}

/// Closes what is open and has the queue do the rest. Nothing of the user's is destroyed under the lock.
void Connection::finish(Lock& lock, Cause cause, Error error) {
  const bool first = state_ != State::ended;
  if (cause == Cause::interruption && !first) return;
  if (cause == Cause::invalidation) invalidated_ = true;
  Ending ending;
  Block closed;
  ending.error = std::move(error);
  ending.self = std::move(self_);
  ending.handler = std::move(cause == Cause::invalidation ? invalidation_handler_ : interruption_handler_);
  if (first) {
    state_ = State::ended;
    source_.cancel();
    deadline_.cancel();
    ending.outstanding = std::move(outstanding_);
    ending.exported_object = std::move(exported_object_);
    for (const auto& pending : ending.outstanding) sd_bus_slot_unref(std::exchange(pending->slot, nullptr));
    for (const auto& [call, message] : unanswered_) sd_bus_message_unref(message);
    unanswered_.clear();
    if (bus_ != nullptr) sd_bus_close_unref(std::exchange(bus_, nullptr));
    socket_ = -1;
    unopened_.reset();
    closed = std::move(closed_handler_);
  }
  lock.unlock();
  if (closed) closed();
  dispatch_async(queue_, [ending = std::make_unique<Ending>(std::move(ending))] {
    for (const auto& pending : ending->outstanding) {
      if (pending->on_error) pending->on_error(ending->error);
    }
    if (ending->handler) ending->handler();
  });
}

// --- reading and writing ---

void Connection::handleEvents(std::uint32_t events) {
  Lock lock(mutex_);
  const std::uint64_t delivered_before = delivered_;
  int r = 1;
  while (bus_ != nullptr && r > 0 && delivered_ == delivered_before) r = step(events);
  if (bus_ == nullptr) return;
  if (r < 0) {
    finish(lock, Cause::interruption, {error_disconnected, std::strerror(-r)});
    return;
  }
  watchForWriting();
  // One message a round: whatever else is ready comes first.
  if (r > 0) source_.again();
}

/// Does one piece of work. Positive: there may be more; 0: nothing until the next event; negative: the
/// connection is to end. It ends before the bus would close the socket, which epoll still knows by its
/// number.
int Connection::step(std::uint32_t events) {
  if (sd_bus_is_open(bus_) <= 0) return -ECONNRESET;
  const std::uint64_t queued = queuedReplies();
  if (queued > limits_.queued_replies && !isWritable(socket_)) return 0;
  const bool was_ready = ready_;
  const bool at_boundary = boundary_known_;
  bool anything = true;
  if (at_boundary) {
    if (!peekHeader(events, anything)) return -EMSGSIZE;
    if (!anything && queued == 0) return 0;
  }
  const int unread = at_boundary || !ready_ ? 0 : unreadBytes(socket_);
  const std::uint64_t delivered_before = delivered_;
  const int r = sd_bus_process(bus_, nullptr);
  if (r < 0) return r;
  if (sd_bus_is_open(bus_) <= 0) return -ECONNRESET;
  noteHandshake();
  if (!was_ready) return ready_ ? 1 : r;
  const bool wrote_only = r > 0 && delivered_ == delivered_before && queuedReplies() < queued;
  if (!wrote_only) noteReading(r > 0, at_boundary ? anything : unread > 0, unread);
  return r;
}

/// Keeps track of whether the bus holds a part of a message.
void Connection::noteReading(bool complete, bool had_bytes, int unread_before) {
  if (complete) {
    // The bus reads from the socket to the end of a message and not beyond; only what came with the handshake
    // can be more than one message.
    if (!boundary_known_) boundary_known_ = under_way_ || unreadBytes(socket_) < unread_before;
    if (std::exchange(under_way_, false)) deadline_.cancel();
  } else if (had_bytes && !under_way_) {
    boundary_known_ = false;
    setMessageDeadline();
  } else if (had_bytes) {
    boundary_known_ = false;
  }
}

std::uint64_t Connection::queuedReplies() const {
  std::uint64_t queued = 0;
  if (ready_) sd_bus_get_n_queued_write(bus_, &queued);
  return queued;
}

/// Looks at the next message's header without taking it. False when the message is larger than allowed.
/// `anything` says whether there is a header, or the end, to be read.
bool Connection::peekHeader(std::uint32_t events, bool& anything) {
  std::array<std::uint8_t, fixed_header_bytes> header{};
  const ssize_t length = ::recv(socket_, header.data(), header.size(), MSG_PEEK | MSG_DONTWAIT);
  anything = length == 0 || length == static_cast<ssize_t>(fixed_header_bytes);
  if (length > 0 && !anything) {
    // A beginning too short to judge stays in the socket, unless nothing will follow.
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) anything = true;
    if (!under_way_) setMessageDeadline();
  }
  return length != static_cast<ssize_t>(fixed_header_bytes) || claimedSize(header) <= limits_.message_bytes;
}

void Connection::noteHandshake() {
  if (ready_ || sd_bus_is_ready(bus_) <= 0) return;
  ready_ = true;
  deadline_.cancel();
}

void Connection::setMessageDeadline() {
  under_way_ = true;
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

void Connection::deliver(Block block) {
  ++delivered_;
  dispatch_async(queue_, [self = shared_from_this(), block = std::move(block)]() mutable {
    const Delivery delivery(self);
    block();
    block = Block();
  });
}

void Connection::deliverError(ErrorHandler handler, Error error) {
  if (!handler) return;
  dispatch_async(queue_, [handler = std::move(handler), error = std::move(error)] { handler(error); });
}

// --- calls that come in ---

int Connection::acceptCall(sd_bus_message* message) {
  const char* const member = sd_bus_message_get_member(message);
  const auto& methods = exported_interface_->methods;
  const auto method = std::find_if(methods.begin(), methods.end(), [&](const MethodDescription& known) {
    return std::strcmp(known.name, member) == 0;
  });
  if (method == methods.end()) return 0;
  const std::uint64_t call = next_call_++;
  const auto incoming = std::make_shared<Incoming>(weak_from_this(), call);
  Block made;
  const int r = method->prepare(exported_object_, message, incoming, made);
  if (r < 0) {
    incoming->disown();
    ++delivered_;
    return sd_bus_reply_method_errorf(message, error_invalid_arguments, "%s: an argument cannot be used: %s",
                                      member, std::strerror(-r));
  }
  unanswered_.emplace(call, sd_bus_message_ref(message));
  deliver(std::move(made));
  return 1;
}

void Connection::answer(std::uint64_t call, const std::function<int(sd_bus_message*)>& write) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_message* const question = found->second;
  unanswered_.erase(found);
  sd_bus_message* answer = nullptr;
  int r = sd_bus_message_new_method_return(question, &answer);
  if (r >= 0) r = write(answer);
  if (r >= 0) r = sd_bus_send(bus_, answer, nullptr);
  if (r < 0) {
    sd_bus_reply_method_errorf(question, error_limits_exceeded, "the answer cannot be sent: %s",
                               std::strerror(-r));
  }
  sd_bus_message_unref(answer);
  sd_bus_message_unref(question);
  watchForWriting();
}

void Connection::answerError(std::uint64_t call, const std::string& name, const std::string& message) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_reply_method_errorf(found->second, name.c_str(), "%s", message.c_str());
  sd_bus_message_unref(found->second);
  unanswered_.erase(found);
  watchForWriting();
}

void Connection::forget(std::uint64_t call) {
  const Lock lock(mutex_);
  const auto found = unanswered_.find(call);
  if (found == unanswered_.end()) return;
  sd_bus_message_unref(found->second);
  unanswered_.erase(found);
}

// --- calls that go out ---

void Connection::call(const InterfaceDescription& interface, const char* member, const char* reply_signature,
                      const Write& write, Read read, ErrorHandler on_error) {
  const Lock lock(mutex_);
  if (bus_ == nullptr) {
    deliverError(std::move(on_error), {error_disconnected, "the connection has ended"});
    return;
  }
  auto pending = std::make_unique<PendingCall>();
  pending->connection = this;
  pending->reply_signature = reply_signature;
  pending->read = std::move(read);
  pending->on_error = std::move(on_error);
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &message, nullptr, interface.path, interface.name, member);
  if (r >= 0) r = write(message);
  if (r >= 0)
    r = sd_bus_call_async(bus_, &pending->slot, message, BusCallbacks::reply, pending.get(), UINT64_MAX);
  sd_bus_message_unref(message);
  if (r < 0) {
    Error error{error_limits_exceeded, std::string(member) + " cannot be sent: " + std::strerror(-r)};
    // The reply goes with the error, to be destroyed on the queue.
    dispatch_async(queue_, [pending = std::move(pending), error = std::move(error)] {
      if (pending->on_error) pending->on_error(error);
    });
    return;
  }
  PendingCall& placed = *pending;
  placed.place = outstanding_.insert(outstanding_.end(), std::move(pending));
  watchForWriting();
}

int Connection::acceptReply(PendingCall& pending, sd_bus_message* message) {
  std::unique_ptr<PendingCall> answered = std::move(*pending.place);
  outstanding_.erase(answered->place);
  sd_bus_slot_unref(std::exchange(answered->slot, nullptr));
  Error error;
  Block made;
  if (sd_bus_message_is_method_error(message, nullptr) > 0) {
    error = errorOf(message);
  } else if (sd_bus_message_has_signature(message, answered->reply_signature.c_str()) <= 0) {
    error = {error_invalid_arguments, "the reply has another signature than " + answered->reply_signature};
  } else if (const int r = answered->read(message, made); r < 0) {
    error = {error_invalid_arguments, std::string("the reply cannot be used: ") + std::strerror(-r)};
  }
  deliver([answered = std::move(answered), made = std::move(made), error = std::move(error)]() mutable {
    if (made) {
      made();
    } else if (answered->on_error) {
      answered->on_error(error);
    }
  });
  return 1;
}

}  // namespace kelvane::xpc
