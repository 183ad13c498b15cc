#pragma once

namespace kelvane::caches {

/// Answers the daemon on the sockets that the service manager handed over, until nobody has called for a
/// minute or SIGTERM comes; the exit status. To be called while the process has one thread.
int serve();

}  // namespace kelvane::caches
