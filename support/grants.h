#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelvane/value.h"
#include "platform/xpc/credentials.h"

namespace kelvane {

/// What one grant file says.
struct Grant {
  std::optional<uid_t> user;
  std::optional<gid_t> group;
  std::optional<std::string> label;
  std::set<std::string> names;

  [[nodiscard]] bool matches(const xpc::PeerCredentials& peer) const;
};

struct Grants {
  std::vector<Grant> grants;
  bool any_file = false;  ///< also when none of them, or their directory, could be used
};

/// Reads every *.plist of the folders; see entitlements.h.
[[nodiscard]] Grants readGrants(const std::vector<std::string>& folders);

/// Why a file of this owner and mode must not be believed; null when it may.
[[nodiscard]] const char* whyDistrusted(const struct stat& status);

}  // namespace kelvane
