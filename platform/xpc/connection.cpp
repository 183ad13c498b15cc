#include "platform/xpc/connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/xpc/delivery.h"

namespace kelvane::xpc {
namespace {

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

/// Constant: the daemon is started as its user.
uid_t ownUser() {
  static const uid_t user = ::geteuid();
  return user;
}

std::shared_ptr<wire::Account> ownAccount() { return wire::Accounts::shared().of(ownUser()); }

/// The accounts of the users to whose sockets this process itself connects. Descriptors that wait to be sent
/// to them are this process's own; its limit on open files is sufficient.
wire::Accounts& accountsOfServers() {
  static const wire::Limits limits = [] {
    wire::Limits chosen = wire::privilegedLimits();
    chosen.at(static_cast<std::size_t>(wire::Resource::descriptors)) = std::numeric_limits<int>::max();
    return chosen;
  }();
  static wire::Accounts accounts(limits, limits);
  return accounts;
}

}  // namespace

struct Connection::Ending {
  std::map<std::uint32_t, std::unique_ptr<OutgoingCall>> outstanding;
  std::shared_ptr<void> exported_object;
  std::shared_ptr<Connection> self;
  Block handler;
  Block never_called;
};

// --- making and ending ---

Connection::Connection(wire::Transport::Side side, FileDescriptor socket)
    : side_(side), queue_(dispatch_queue_create("xpc.connection")), unopened_(std::move(socket)) {}

std::shared_ptr<Connection> Connection::initWithListenerEndpoint(const Endpoint& endpoint) {
  std::shared_ptr<wire::Account> account = endpoint.payer();
  if (account == nullptr) account = ownAccount();
  wire::Charge cost = wire::Charge::of(account, wire::Resource::connections, 1);
  Endpoint::Opening opening = cost ? endpoint.begin() : Endpoint::Opening();
  std::shared_ptr<Connection> connection(
      new Connection(wire::Transport::Side::client, std::move(opening.ours)));
  connection->unpassed_ = {endpoint, std::move(opening.theirs)};
  connection->account_ = std::move(account);
  connection->cost_ = std::move(cost);
  return connection;
}

std::shared_ptr<Connection> Connection::initWithSocketPath(const std::string& path) {
  std::shared_ptr<Connection> connection(new Connection(wire::Transport::Side::client, connectTo(path)));
  if (!connection->unopened_) return connection;
  connection->credentials_ = PeerCredentials::ofSocket(connection->unopened_.get());
  if (!connection->credentials_) return connection;
  connection->account_ = accountsOfServers().of(connection->credentials_->uid);
  connection->cost_ = wire::Charge::of(connection->account_, wire::Resource::connections, 1);
  return connection;
}

std::shared_ptr<Connection> Connection::initAccepting(FileDescriptor socket, PeerCredentials credentials,
                                                      std::shared_ptr<wire::Account> account,
                                                      wire::Charge cost) {
  std::shared_ptr<Connection> connection(new Connection(wire::Transport::Side::server, std::move(socket)));
  connection->credentials_ = std::move(credentials);
  connection->account_ = std::move(account);
  connection->cost_ = std::move(cost);
  return connection;
}

Connection::~Connection() = default;

bool Connection::wasEstablished() {
  const Lock lock(mutex_);
  return established_;
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

void Connection::resume() {
  const Lock lock(mutex_);
  if (state_ != State::made) return;
  state_ = State::open;
  self_ = shared_from_this();
  if (!open()) finish(Cause::invalidation, "the connection could not be made");
}

bool Connection::open() {
  if (!unopened_ || !cost_) return false;
  wire::TransportOptions options;
  options.takes_descriptors = takesDescriptors(exported_interface_);
  options.longest_message = limits_.message_bytes;
  const bool accepts = side_ == wire::Transport::Side::server;
  transport_.emplace(std::move(unopened_), side_, accepts ? credentials_->uid : ownUser(), account_, options);
  const std::weak_ptr<Connection> weak = weak_from_this();
  deadline_ = Timer(dispatch_time(DISPATCH_TIME_NOW, limits_.handshake_nanoseconds),
                    dispatch_get_global_queue(0, 0), [weak] {
                      if (const auto connection = weak.lock()) connection->interrupt(handshake_took_too_long);
                    });
  source_ = EventSource(transport_->socket(), EPOLLIN | EPOLLRDHUP, [weak](std::uint32_t events) {
    if (const auto connection = weak.lock()) connection->handleEvents(events);
  });
  if (accepts) return true;
  // The handshake goes out with the first call, which most likely follows at once; else in this round.
  greeting_ = Greeting::due;
  source_.again();
  return true;
}

void Connection::invalidate() {
  const Lock lock(mutex_);
  if (invalidated_) return;
  invalidated_ = true;
  finish(Cause::invalidation, "the connection was invalidated");
}

void Connection::interrupt(const char* why) {
  const Lock lock(mutex_);
  finish(Cause::interruption, why);
}

/// Closes what is open and has the queue do the rest. Nothing of the user's is destroyed under the lock.
void Connection::finish(Cause cause, const std::string& why) {
  const bool first = state_ != State::ended;
  if (cause == Cause::interruption && !first) return;
  if (cause == Cause::invalidation) invalidated_ = true;
  Ending ending;
  ending.self = std::move(self_);
  ending.handler = std::move(cause == Cause::invalidation ? invalidation_handler_ : interruption_handler_);
  // Kept, it could keep the connection.
  if (cause == Cause::invalidation) ending.never_called = std::move(interruption_handler_);
  if (first) {
    state_ = State::ended;
    source_.cancelBeforeClose();  // nobody has a copy of the socket
    deadline_.cancel();
    for (auto& [serial, call] : outstanding_) call->fail({error_disconnected, why});
    ending.outstanding = std::move(outstanding_);
    ending.exported_object = std::move(exported_object_);
    transport_.reset();
    unopened_.reset();
    unpassed_.reset();
    cost_.reset();
  }
  // Under the lock, so that the interruption comes before the invalidation.
  dispatch_async(queue_, [ending = std::make_unique<Ending>(std::move(ending))] {
    for (const auto& [serial, call] : ending->outstanding) call->finish();
    if (ending->handler) ending->handler();
  });
}

std::shared_ptr<Connection> Connection::current() {
  const Delivery* const delivery = Delivery::current();
  return delivery != nullptr ? delivery->connection : nullptr;
}

}  // namespace kelvane::xpc
