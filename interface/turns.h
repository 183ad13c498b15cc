#pragma once

#include <sys/types.h>
#include <list>
#include <map>
#include <mutex>

#include "platform/dispatch/block.h"

namespace kelvane {

/// Work of many users for one serial queue. Users take turns, so that nobody waits for more than one item of
/// each other user, no matter how many are queued. The items of one user run in the order in which they were
/// added. Any thread.
class Turns {
 public:
  /// Each call must be followed by one `runNext` on the queue.
  void add(uid_t user, Block item);
  /// Runs the next item in turn, which may belong to any user.
  void runNext();

 private:
  Block takeNext();

  std::mutex mutex_;                           // guards all below
  std::map<uid_t, std::list<Block>> waiting_;  // users with at least one item
  uid_t last_ = 0;                             // whose item ran last
};

}  // namespace kelvane
