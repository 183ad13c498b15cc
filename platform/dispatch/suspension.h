#pragma once

#include <utility>

#include "platform/dispatch/queue.h"

namespace kelvane {

/// Keeps a queue suspended while this object lives.
class Suspension {
 public:
  explicit Suspension(dispatch_queue_t queue) : queue_(std::move(queue)) { dispatch_suspend(queue_); }
  ~Suspension() { dispatch_resume(queue_); }
  Suspension(const Suspension&) = delete;
  Suspension& operator=(const Suspension&) = delete;

 private:
  const dispatch_queue_t queue_;
};

}  // namespace kelvane
