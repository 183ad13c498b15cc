#pragma once

#include <sys/types.h>

namespace kelvane {

/// Whether the process whose message the calling thread is handling holds the entitlement. If not, that is
/// logged at level 3 under the name of the called method. A call without a connection holds none.
[[nodiscard]] bool callerIsEntitled(const char* entitlement, const char* selector);

/// The user of that process; this process's own user for a call without a connection.
[[nodiscard]] uid_t callingUser();

}  // namespace kelvane
