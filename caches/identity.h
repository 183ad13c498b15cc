#pragma once

// How a worker becomes a user for good.

#include <string>

#include "caches/job.h"

namespace kelvane::caches {

/// Gives up every right but the user's own: supplementary groups, group and user IDs, new privileges, all
/// capabilities; and checks that none of it can come back. For user 0 the capabilities go, so that it is an
/// owner like any other. Returns what failed: the process must then end. Only in a process with one thread.
[[nodiscard]] std::string becomeForGood(const User& user);

/// The same without a change of IDs, where there is no right to: the process must be this user's already.
[[nodiscard]] std::string stayForGood(const User& user);

/// What a worker may use: memory, descriptors, no core dumps, and no bytes written to any file.
[[nodiscard]] std::string limitResources();

}  // namespace kelvane::caches
