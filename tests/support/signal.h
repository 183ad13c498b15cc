#pragma once

#include "platform/dispatch/group.h"

namespace kelvane::tests {

/// Something that a test waits for. Without a time limit of its own: the test program has one.
class Signal {
 public:
  void operator()() const { dispatch_semaphore_signal(semaphore_); }
  void wait() const { static_cast<void>(dispatch_semaphore_wait(semaphore_, DISPATCH_TIME_FOREVER)); }
  /// Whether there was a signal that nobody has waited for; takes it.
  [[nodiscard]] bool given() const { return dispatch_semaphore_wait(semaphore_, DISPATCH_TIME_NOW) == 0; }

 private:
  dispatch_semaphore_t semaphore_ = dispatch_semaphore_create(0);
};

}  // namespace kelvane::tests
