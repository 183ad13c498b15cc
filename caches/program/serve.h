#pragma once

namespace kelvane::caches {

/// Answers the daemon on the sockets that the service manager handed over, until a minute has
/// passed without a call or SIGTERM arrives; returns the exit status. To be called while the process has one
/// thread.
int serve();

}  // namespace kelvane::caches
