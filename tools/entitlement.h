#pragma once

// Whether a declared service may use the daemon by itself. Its descriptor names no user, and its socket may
// be owned by whoever made it for the service; so this looks at who holds the socket now.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/xpc/credentials.h"

namespace kelvane::tools {

/// The processes that hold sockets, by the sockets' inodes. The service manager, process 1, is none of them.
struct Holders {
  std::map<std::string, std::vector<xpc::PeerCredentials>> of_inode;
  bool all_seen = true;  // or else some process does not show this user what it holds
};
[[nodiscard]] Holders holdersOf(const std::set<std::string>& inodes, const std::string& proc = "/proc");

/// Why the daemon may judge by other grants than are found in the folders; empty for no reason. It believes
/// files of its own user, which is not known here.
[[nodiscard]] std::string doubtAboutGrants(const std::vector<std::string>& folders);

enum class Entitled : std::uint8_t { unknown, yes, no };
struct Entitlement {
  Entitled entitled = Entitled::unknown;
  std::string reason;  // who is, who lacks what, or what cannot be told
};

/// Yes when every process that holds the socket may connect to the daemon and check in, no when none may.
[[nodiscard]] Entitlement entitlementOf(const std::string& inode, const Holders& holders,
                                        const std::string& doubt);

}  // namespace kelvane::tools
