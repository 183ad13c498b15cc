#include "platform/xpc/listener.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/dispatch/queue.h"
#include "platform/xpc/listening_socket.h"
#include "platform/xpc/packets.h"

namespace kelvane::xpc {
namespace {

constexpr std::int64_t pause_without_descriptors = 100'000'000;  // nanoseconds

/// Tells the end from an empty message; reading returns 0 for either.
bool isClosed(int socket) {
  pollfd state{socket, 0, 0};
  return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

bool outOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Listener::Listener(FileDescriptor socket, bool anonymous)
    : anonymous_(anonymous), socket_(std::move(socket)) {}

Listener::~Listener() { invalidate(); }

std::shared_ptr<Listener> Listener::initWithSocketPath(const std::string& path, mode_t mode,
                                                       std::string& reason) {
  FileDescriptor socket = listenAt(path, mode, reason);
  if (!socket) return nullptr;
  std::shared_ptr<Listener> listener(new Listener(std::move(socket), false));
  listener->path_ = path;
  return listener;
}

std::shared_ptr<Listener> Listener::initWithListeningSocket(FileDescriptor socket) {
  if (!takeOverListening(socket.get())) return nullptr;
  return std::shared_ptr<Listener>(new Listener(std::move(socket), false));
}

std::shared_ptr<Listener> Listener::anonymousListener() {
  std::array<int, 2> pair{-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0)
    return nullptr;
  std::shared_ptr<Listener> listener(new Listener(FileDescriptor(pair[0]), true));
  listener->endpoint_ = *Endpoint::adopt(FileDescriptor(pair[1]));
  return listener;
}

Endpoint Listener::takeEndpoint() {
  const std::scoped_lock lock(mutex_);
  return std::exchange(endpoint_, Endpoint());
}

void Listener::resume() {
  const std::scoped_lock lock(mutex_);
  if (!socket_) return;
  source_ = EventSource(socket_.get(), EPOLLIN | EPOLLRDHUP, [weak = weak_from_this()](std::uint32_t) {
    if (const auto listener = weak.lock()) listener->handleEvents();
  });
}

void Listener::invalidate() {
  const std::scoped_lock lock(mutex_);
  source_.cancel();
  retry_.cancel();
  if (socket_ && !path_.empty()) ::unlink(path_.c_str());
  socket_.reset();
}

void Listener::handleEvents() {
  while (anonymous_ ? receiveSome() : acceptOne()) {
  }
}

/// Returns whether to go on at once.
bool Listener::acceptOne() {
  FileDescriptor accepted;
  {
    const std::scoped_lock lock(mutex_);
    if (!socket_ || paused_) return false;
    accepted = FileDescriptor(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted && outOfDescriptors(errno)) {
      // Whoever waits to be accepted keeps the socket readable; look again when some may have been freed.
      retry_ = Timer(dispatch_time(DISPATCH_TIME_NOW, pause_without_descriptors),
                     dispatch_get_global_queue(0, 0), [weak = weak_from_this()] {
                       if (const auto listener = weak.lock()) listener->handleEvents();
                     });
      return false;
    }
    if (!accepted) return errno == ECONNABORTED || errno == EINTR;
    ++admitting_;
  }
  admit(std::move(accepted));
  const std::scoped_lock lock(mutex_);
  --admitting_;
  return true;
}

bool Listener::pauseIfNobodyWaits() {
  const std::scoped_lock lock(mutex_);
  if (paused_) return true;
  pollfd waiting{socket_.get(), POLLIN, 0};
  if (admitting_ > 0 || ::poll(&waiting, 1, 0) != 0) return false;
  paused_ = true;
  return true;
}

void Listener::goOn() {
  const std::scoped_lock lock(mutex_);
  // Readiness is reported on change only, so connections that arrived meanwhile must be accepted now.
  if (std::exchange(paused_, false)) source_.again();
}

/// Returns whether to go on at once. Fewer than could have come are all there were.
bool Listener::receiveSome() {
  Packets packets;
  std::array<FileDescriptor, Packets::most> received;
  int count = 0;
  bool closed = false;
  {
    const std::scoped_lock lock(mutex_);
    if (!socket_) return false;
    count = packets.receive(socket_.get());
    if (count < 0 && errno == EINTR) return true;
    if (count < 0 && errno == EAGAIN) return false;
    closed = count < 0;
    for (int i = 0; i < count; ++i) {
      const auto at = static_cast<std::size_t>(i);
      received[at] = packets.takeDescriptor(at);
      closed = closed || (packets.isEmpty(at) && isClosed(socket_.get()));
    }
  }
  for (FileDescriptor& each : received) {
    if (each) admit(std::move(each));
  }
  if (!closed) return count == static_cast<int>(Packets::most);
  endpointClosed();
  return false;
}

void Listener::endpointClosed() {
  Block handler;
  {
    const std::scoped_lock lock(mutex_);
    handler = std::move(endpoint_closed_);
  }
  invalidate();
  if (handler) handler();
}

void Listener::admit(FileDescriptor socket) {
  const std::optional<PeerCredentials> peer = PeerCredentials::ofSocket(socket.get());
  if (!peer || (may_connect_ && !may_connect_(*peer))) return;
  auto account = accounts_->of(peer->uid);
  wire::Charge cost = wire::Charge::of(account, wire::Resource::connections, 1);
  if (!cost) {
    if (refused_) refused_(*peer);
    return;
  }
  const auto connection =
      Connection::initAccepting(std::move(socket), *peer, std::move(account), std::move(cost));
  if (configure_) configure_(connection);
}

}  // namespace kelvane::xpc
