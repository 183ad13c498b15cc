#include "platform/xpc/connection.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/xpc/bus_callbacks.h"
#include "platform/xpc/connection_internal.h"

namespace kelvane::xpc {
namespace {

constexpr int send_buffer_bytes = 128 << 10;

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

bool takesDescriptors(const InterfaceDescription* interface) {
  return interface != nullptr && std::any_of(interface->methods.begin(), interface->methods.end(),
                                             [](const MethodDescription& method) {
                                               return method.in.find('h') != std::string::npos;
                                             });
}

}  // namespace

struct Connection::Ending {
  std::list<PendingCall> outstanding;
  std::shared_ptr<void> exported_object;
  std::shared_ptr<Connection> self;
  Block handler;
  Block never_called;
  Error error;
};

// --- making and ending ---

Connection::Connection(bool accepting)
    : accepting_(accepting), queue_(dispatch_queue_create("xpc.connection")) {}

std::shared_ptr<Connection> Connection::initWithListenerEndpoint(const Endpoint& endpoint) {
  std::shared_ptr<Connection> connection(new Connection(false));
  connection->unopened_ = endpoint.open();
  return connection;
}

std::shared_ptr<Connection> Connection::initWithSocketPath(const std::string& path) {
  std::shared_ptr<Connection> connection(new Connection(false));
  connection->unopened_ = connectTo(path);
  if (connection->unopened_)
    connection->credentials_ = PeerCredentials::ofSocket(connection->unopened_.get());
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

bool Connection::wasEstablished() {
  const Lock lock(mutex_);
  return ready_;
}

// What a handler replaces is destroyed once the lock is released.

void Connection::setInterruptionHandler(Block handler) {
  const Lock lock(mutex_);
  std::swap(interruption_handler_, handler);
}

void Connection::setInvalidationHandler(Block handler) {
  const Lock lock(mutex_);
  std::swap(invalidation_handler_, handler);
}

void Connection::setClosedHandler(Block handler) {
  const Lock lock(mutex_);
  std::swap(closed_handler_, handler);
}

void Connection::resume() {
  Lock lock(mutex_);
  if (state_ != State::made) return;
  state_ = State::open;
  self_ = shared_from_this();
  const int r = unopened_ ? startBus() : -ENOTCONN;
  if (r < 0) {
    finish(lock, Cause::invalidation, "cannot be connected");
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  deadline_ = Timer(dispatch_time(DISPATCH_TIME_NOW, limits_.handshake_nanoseconds),
                    dispatch_get_global_queue(0, 0), [weak] {
                      if (const auto connection = weak.lock()) connection->interrupt(handshake_took_too_long);
                    });
  source_ = EventSource(socket_, EPOLLIN | EPOLLRDHUP, [weak](std::uint32_t events) {
    if (const auto connection = weak.lock()) connection->handleEvents(events);
  });
  watchForWriting();
}

int Connection::startBus() {
  int r = sd_bus_new(&bus_);
  if (r < 0) return r;
  FileDescriptor input;
  if (exported_interface_ != nullptr) {
    input = FileDescriptor(::fcntl(unopened_.get(), F_DUPFD_CLOEXEC, 3));
    if (!input || emptySocket() < 0) return -errno;
  }
  const int reading = input ? input.get() : unopened_.get();
  r = sd_bus_set_fd(bus_, reading, unopened_.get());
  if (r < 0) return r;
  socket_ = unopened_.release();  // the bus closes both
  input_ = input.release();
  // The library loses the descriptors of a message that it drops. So who never needs any gets none.
  sd_bus_negotiate_fds(bus_, !accepting_ || takesDescriptors(exported_interface_) ? 1 : 0);
  r = sd_bus_add_filter(bus_, nullptr, BusCallbacks::anything, this);
  if (r < 0) return r;
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
  if (r < 0 || !accepting_) return r < 0 ? r : sd_bus_start(bus_);
  // Whoever accepts reads at once.
  intake_.lookAtHandshake(socket_);
  r = sd_bus_start(bus_);
  if (r >= 0) intake_.noteHandshake(intake_.counted(socket_));
  // Starting enlarges the buffer beyond what a peer that does not read its replies should cost.
  if (r >= 0) ::setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  return r;
}

void Connection::invalidate() {
  Lock lock(mutex_);
  if (invalidated_) return;
  invalidated_ = true;
  finish(lock, Cause::invalidation, "the connection was invalidated");
}

void Connection::interrupt(const char* why) {
  Lock lock(mutex_);
  finish(lock, Cause::interruption, why);
}

/// Closes what is open and has the queue do the rest. Nothing of the user's is destroyed under the lock.
void Connection::finish(Lock& lock, Cause cause, const char* why) {
  const bool first = state_ != State::ended;
  if (cause == Cause::interruption && !first) return;
  if (cause == Cause::invalidation) invalidated_ = true;
  Ending ending;
  Block closed;
  ending.self = std::move(self_);
  ending.handler = std::move(cause == Cause::invalidation ? invalidation_handler_ : interruption_handler_);
  // Kept, it could keep the connection.
  if (cause == Cause::invalidation) ending.never_called = std::move(interruption_handler_);
  if (first) {
    state_ = State::ended;
    // The bus closes the only descriptor, unless there is one for input too.
    if (input_ < 0) {
      source_.cancelBeforeClose();
    } else {
      source_.cancel();
    }
    deadline_.cancel();
    ending.outstanding = std::move(outstanding_);
    ending.exported_object = std::move(exported_object_);
    if (!ending.outstanding.empty()) ending.error = {error_disconnected, why};
    for (PendingCall& pending : ending.outstanding) sd_bus_slot_unref(std::exchange(pending.slot, nullptr));
    for (const auto& [call, message] : unanswered_) sd_bus_message_unref(message);
    unanswered_.clear();
    if (bus_ != nullptr) sd_bus_close_unref(std::exchange(bus_, nullptr));
    socket_ = -1;
    input_ = -1;
    unopened_.reset();
    closed = std::move(closed_handler_);
  }
  // Under the lock, so that the interruption comes before the invalidation.
  dispatch_async(queue_, [ending = std::make_unique<Ending>(std::move(ending))] {
    for (const PendingCall& pending : ending->outstanding) {
      if (pending.on_error) pending.on_error(ending->error);
    }
    if (ending->handler) ending->handler();
  });
  lock.unlock();
  if (closed) closed();
}

}  // namespace kelvane::xpc
