#pragma once

// How a worker becomes a user for good.

#include <string>

#include "caches/job.h"

namespace kelvane::caches {

/// Gives up every right but the user's own: supplementary groups, group and user IDs, new privileges, all
/// capabilities. Then checks that none of them can be regained. User 0 loses its capabilities too, so that it
/// has only the rights of an owner. Returns what failed: the process must then end. Only in a process with
/// one thread.
[[nodiscard]] std::string becomeForGood(const User& user);

/// The same without a change of IDs, for a process without that right: it must run as this user already.
[[nodiscard]] std::string stayForGood(const User& user);

/// Limits memory and descriptors, and forbids core dumps and writing to files.
[[nodiscard]] std::string limitResources();

}  // namespace kelvane::caches
