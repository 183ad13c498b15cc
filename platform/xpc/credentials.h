#pragma once

#include <sys/types.h>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::xpc {

/// The process at the other end of a socket, as the kernel recorded it when the socket was connected. Later
/// changes to the process have no effect.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::vector<gid_t> groups;         // supplementary
  std::optional<std::string> label;  // of the security module, where there is one

  /// Nothing when the kernel has no record (not a connected local socket).
  static std::optional<PeerCredentials> ofSocket(int descriptor);
};

}  // namespace kelvane::xpc
