#include "platform/host/service_manager.h"

#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/host/environment_number.h"
#include "platform/host/local_address.h"

namespace kelvane {
namespace {

constexpr std::size_t longest_status = 1024;
constexpr time_t ready_patience = 5;  // seconds

enum class Wait : bool { no, yes };

/// Where the service manager listens: a path, or "@" and a name in the abstract name space.
std::optional<LocalAddress> managersAddress() {
  const char* const value = std::getenv("NOTIFY_SOCKET");
  if (value == nullptr) return std::nullopt;
  const std::string_view text = value;
  return text.starts_with('@') ? LocalAddress::ofAbstractName(text.substr(1)) : LocalAddress::ofPath(text);
}

/// One datagram with this process's credentials, by which the service manager knows whose it is.
class Message {
 public:
  explicit Message(std::string_view text) : text_(text) {
    const ucred sender{::getpid(), ::getuid(), ::getgid()};
    header_.msg_iov = &part_;
    header_.msg_iovlen = 1;
    header_.msg_control = control_.data();
    header_.msg_controllen = control_.size();
    cmsghdr* const credentials = CMSG_FIRSTHDR(&header_);
    credentials->cmsg_level = SOL_SOCKET;
    credentials->cmsg_type = SCM_CREDENTIALS;
    credentials->cmsg_len = CMSG_LEN(sizeof sender);
    std::memcpy(CMSG_DATA(credentials), &sender, sizeof sender);
  }

  bool send(int socket, const LocalAddress& to, int flags) {
    header_.msg_name = const_cast<sockaddr*>(to.get());
    header_.msg_namelen = to.size();
    ssize_t sent = -1;
    do {
      sent = ::sendmsg(socket, &header_, MSG_NOSIGNAL | flags);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(text_.size());
  }

 private:
  std::string text_;
  iovec part_{text_.data(), text_.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control_{};
  msghdr header_{};
};

bool tell(std::string_view text, Wait wait) {
  const std::optional<LocalAddress> manager = managersAddress();
  if (!manager) return false;
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return false;
  const timeval patience{ready_patience, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  return Message(text).send(socket.get(), *manager, wait == Wait::yes ? 0 : MSG_DONTWAIT);
}

}  // namespace

bool notifyReady() { return tell("READY=1", Wait::yes); }

bool notifyStatus(std::string_view text) {
  // A line break would begin another assignment.
  std::string line = "STATUS=" + std::string(text.substr(0, longest_status));
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\0'; }, ' ');
  return tell(line, Wait::no);
}

std::optional<std::uint64_t> serviceManagerPatience() {
  const auto patience = environmentNumber("WATCHDOG_USEC");
  if (!patience || *patience == 0 || *patience == std::numeric_limits<std::uint64_t>::max())
    return std::nullopt;
  // Without WATCHDOG_PID it is for whoever reads it.
  const bool is_ours = std::getenv("WATCHDOG_PID") == nullptr ||
                       environmentNumber("WATCHDOG_PID") == static_cast<std::uint64_t>(::getpid());
  return is_ours ? patience : std::nullopt;
}

bool notifyAlive() { return tell("WATCHDOG=1", Wait::no); }

}  // namespace kelvane
