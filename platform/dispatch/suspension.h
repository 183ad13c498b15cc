#pragma once

#include <utility>

#include "platform/dispatch/queue.h"

namespace kelvane {

/// Keeps a queue suspended while this object lives, or until `endWith`.
class Suspension {
 public:
  explicit Suspension(dispatch_queue_t queue) : queue_(std::move(queue)) { dispatch_suspend(queue_); }
  ~Suspension() {
    if (queue_ != nullptr) dispatch_resume(queue_);
  }
  Suspension(const Suspension&) = delete;
  Suspension& operator=(const Suspension&) = delete;

  /// Ends the suspension. `next` runs on the queue before all waiting items. So an item that has suspended
  /// its own queue can continue later without holding a thread until then. Call it once.
  void endWith(Block next) { dispatch_resume_with(std::exchange(queue_, nullptr), std::move(next)); }

 private:
  dispatch_queue_t queue_;  // null once the suspension has ended
};

}  // namespace kelvane
