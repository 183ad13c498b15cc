#include "platform/xpc/listener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/dispatch/queue.h"

namespace kelvane::xpc {
namespace {

constexpr std::int64_t pause_without_descriptors = 100'000'000;  // nanoseconds

bool addressOf(const std::string& path, sockaddr_un& address) {
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return true;
}

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

bool somebodyListens(const sockaddr_un& address) {
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return ::connect(probe.get(), generic(address), sizeof address) == 0 || errno == EAGAIN;
}

int option(int descriptor, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
}

bool isListening(int descriptor) {
  return option(descriptor, SO_DOMAIN) == AF_UNIX && option(descriptor, SO_TYPE) == SOCK_STREAM &&
         option(descriptor, SO_ACCEPTCONN) == 1;
}

/// Tells the end from an empty message; reading returns 0 for either.
bool isClosed(int socket) {
  pollfd state{socket, 0, 0};
  return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

/// Messages of one byte each, with at most one descriptor each: the kernel closes what more a sender
/// attached.
class Packets {
 public:
  static constexpr std::size_t most = 8;

  /// How many came; negative, and errno, when none did.
  int receive(int socket) {
    for (std::size_t i = 0; i < most; ++i) {
      data_[i] = {&bytes_[i], 1};
      headers_[i] = {};
      headers_[i].msg_hdr.msg_iov = &data_[i];
      headers_[i].msg_hdr.msg_iovlen = 1;
      headers_[i].msg_hdr.msg_control = control_[i].data();
      headers_[i].msg_hdr.msg_controllen = CMSG_LEN(sizeof(int));
    }
    return ::recvmmsg(socket, headers_.data(), most, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, nullptr);
  }
  /// An empty message may be the end of all.
  [[nodiscard]] bool isEmpty(std::size_t i) const { return headers_[i].msg_len == 0; }
  /// Empty when the message brought none.
  FileDescriptor takeDescriptor(std::size_t i) {
    const cmsghdr* const header = isEmpty(i) ? nullptr : CMSG_FIRSTHDR(&headers_[i].msg_hdr);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) return {};
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return FileDescriptor(descriptor);
  }

 private:
  struct alignas(cmsghdr) Control : std::array<char, CMSG_SPACE(sizeof(int))> {};

  std::array<char, most> bytes_{};
  std::array<iovec, most> data_{};
  std::array<mmsghdr, most> headers_{};
  std::array<Control, most> control_{};
};

bool outOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Listener::Listener(FileDescriptor socket, bool anonymous)
    : anonymous_(anonymous), socket_(std::move(socket)) {}

Listener::~Listener() { invalidate(); }

std::shared_ptr<Listener> Listener::initWithSocketPath(const std::string& path, mode_t mode,
                                                       std::string& reason) {
  sockaddr_un address{};
  if (!addressOf(path, address)) {
    reason = "the path of the socket is empty or longer than " + std::to_string(sizeof address.sun_path - 1) +
             " bytes";
    return nullptr;
  }
  if (somebodyListens(address)) {
    reason = "another process listens there";
    return nullptr;
  }
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) ::unlink(path.c_str());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Nobody can connect before `listen`, so the mode is right before it matters.
  if (!socket || ::bind(socket.get(), generic(address), sizeof address) != 0 ||
      ::chmod(path.c_str(), mode) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    reason = std::strerror(errno);
    return nullptr;
  }
  std::shared_ptr<Listener> listener(new Listener(std::move(socket), false));
  listener->path_ = path;
  return listener;
}

std::shared_ptr<Listener> Listener::initWithListeningSocket(FileDescriptor socket) {
  if (!isListening(socket.get())) return nullptr;
  // A service manager hands it over in the blocking mode.
  const int flags = ::fcntl(socket.get(), F_GETFL);
  if (flags < 0 || ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0) return nullptr;
  // Peers are told who listened last as the one they speak to; that was the service manager until now.
  if (::listen(socket.get(), SOMAXCONN) != 0) return nullptr;
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
