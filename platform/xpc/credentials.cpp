#include "platform/xpc/credentials.h"

#include <sys/socket.h>
#include <cerrno>

namespace kelvane::xpc {
namespace {

/// Reads a socket option of unknown length; empty when there is none.
template <class Element>
std::vector<Element> readOption(int descriptor, int name, std::size_t expected) {
  std::vector<Element> buffer(expected);
  for (;;) {
    auto length = static_cast<socklen_t>(buffer.size() * sizeof(Element));
    const std::size_t room = length;
    if (::getsockopt(descriptor, SOL_SOCKET, name, buffer.data(), &length) == 0) {
      buffer.resize(length / sizeof(Element));
      return buffer;
    }
    if (errno != ERANGE || length <= room) return {};
    buffer.resize(length / sizeof(Element) + 1);
  }
}

}  // namespace

std::optional<PeerCredentials> PeerCredentials::ofSocket(int descriptor) {
  ucred recorded{};
  socklen_t length = sizeof recorded;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &recorded, &length) != 0) return std::nullopt;
  if (recorded.uid == static_cast<uid_t>(-1)) return std::nullopt;
  PeerCredentials credentials;
  credentials.pid = recorded.pid;
  credentials.uid = recorded.uid;
  credentials.gid = recorded.gid;
  credentials.groups = readOption<gid_t>(descriptor, SO_PEERGROUPS, 16);
  const std::vector<char> label = readOption<char>(descriptor, SO_PEERSEC, 64);
  if (!label.empty()) {
    credentials.label.emplace(label.begin(), label.end());
    while (!credentials.label->empty() && credentials.label->back() == '\0') credentials.label->pop_back();
  }
  return credentials;
}

}  // namespace kelvane::xpc
