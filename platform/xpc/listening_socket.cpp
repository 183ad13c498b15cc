#include "platform/xpc/listening_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace kelvane::xpc {
namespace {

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

}  // namespace

FileDescriptor listenAt(const std::string& path, mode_t mode, std::string& reason) {
  sockaddr_un address{};
  if (!addressOf(path, address)) {
    reason = "the path of the socket is empty or longer than " + std::to_string(sizeof address.sun_path - 1) +
             " bytes";
    return {};
  }
  if (somebodyListens(address)) {
    reason = "another process listens there";
    return {};
  }
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) ::unlink(path.c_str());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Nobody can connect before `listen`, so the mode is right before it matters.
  if (!socket || ::bind(socket.get(), generic(address), sizeof address) != 0 ||
      ::chmod(path.c_str(), mode) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    reason = std::strerror(errno);
    return {};
  }
  return socket;
}

bool takeOverListening(int socket) {
  if (!isListening(socket)) return false;
  // A service manager passes it in blocking mode.
  const int flags = ::fcntl(socket, F_GETFL);
  if (flags < 0 || ::fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0) return false;
  // Peers see the last process that called `listen` as their peer; until now that was the service manager.
  return ::listen(socket, SOMAXCONN) == 0;
}

}  // namespace kelvane::xpc
