#pragma once

#include <gtest/gtest.h>
#include <thread>

#include "platform/dispatch/executor.h"

namespace kelvane::tests {

/// Blocks until so many timers are set. A connection has one while its handshake, or a message, is under way:
/// with only those set that the test knows of, the clock may be moved past them without ending a connection.
inline void awaitTimers(unsigned number) {
  while (dispatch_statistics().timers != number) std::this_thread::yield();
}

/// Blocks until every connection and every listener of this process is gone, which fails by the test
/// program's time limit when something was left behind.
inline void awaitNoConnections() {
  while (dispatch_statistics().event_sources != 0 || dispatch_statistics().timers != 0)
    std::this_thread::yield();
}

}  // namespace kelvane::tests
