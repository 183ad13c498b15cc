#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/dispatch/queue.h"

namespace kelvane::test {

/// Counts how often something happened. It blocks on a plain condition variable, of which the pool knows
/// nothing. May be used on any thread.
class Occasion {
 public:
  void happen() {
    const std::scoped_lock lock(mutex_);
    ++times_;
    happened_.notify_all();
  }
  /// Blocks until it has happened `times` times altogether.
  void await(int times = 1) {
    std::unique_lock lock(mutex_);
    happened_.wait(lock, [&] { return times_ >= times; });
  }
  [[nodiscard]] int times() const {
    const std::scoped_lock lock(mutex_);
    return times_;
  }

 private:
  mutable std::mutex mutex_;  // guards all below
  std::condition_variable happened_;
  int times_ = 0;
};

/// Goes to the pool and back many times, so that whatever it could have done meanwhile, it has done.
inline void letThePoolWork() {
  const dispatch_queue_t queue = dispatch_queue_create("passing time");
  Occasion passed;
  for (int i = 1; i <= 50; ++i) {
    dispatch_async(dispatch_get_global_queue(0, 0), [&] { dispatch_async(queue, [&] { passed.happen(); }); });
    passed.await(i);
  }
  dispatch_sync(queue, [] {});
}

}  // namespace kelvane::test
