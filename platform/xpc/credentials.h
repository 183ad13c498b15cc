#pragma once

#include <sys/types.h>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::xpc {

/// Who is at the other end of a socket, as the kernel recorded it when the socket was connected. What the
/// process has become since does not change it.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::vector<gid_t> groups;         // supplementary
  std::optional<std::string> label;  // of the security module, where there is one

  /// Nothing when the kernel does not say (not a connected local socket).
  static std::optional<PeerCredentials> ofSocket(int descriptor);
};

}  // namespace kelvane::xpc
