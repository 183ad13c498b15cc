#include "platform/dispatch/group.h"

#include <condition_variable>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/dispatch/executor.h"
#include "platform/dispatch/fatal.h"

namespace kelvane {
namespace dispatch {
namespace {

/// Waits until `satisfied` (called with `lock` held) or the deadline; returns what it last said.
template <class Predicate>
bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup, dispatch_time_t deadline,
               Predicate satisfied) {
  if (satisfied()) return true;
  Clock& clock = Clock::current();
  if (deadline != DISPATCH_TIME_FOREVER && clock.now() >= deadline) return false;
  const BlockingRegion blocking;
  while (!satisfied()) {
    if (deadline != DISPATCH_TIME_FOREVER && clock.now() >= deadline) return false;
    clock.wait(lock, wakeup, deadline);
  }
  return true;
}

}  // namespace

class Group {
 public:
  void enter() {
    const std::scoped_lock lock(mutex_);
    ++count_;
  }
  void leave() {
    std::vector<std::pair<dispatch_queue_t, Block>> ready;
    {
      const std::scoped_lock lock(mutex_);
      if (count_ == 0) fatal("leaving a group more often than it was entered");
      if (--count_ > 0) return;
      ready.swap(notifications_);
    }
    emptied_.notify_all();
    for (auto& [queue, item] : ready) dispatch_async(queue, std::move(item));
  }
  long wait(dispatch_time_t deadline) {
    std::unique_lock lock(mutex_);
    return waitUntil(lock, emptied_, deadline, [this] { return count_ == 0; }) ? 0 : 1;
  }
  void notify(const dispatch_queue_t& queue, Block item) {
    {
      const std::scoped_lock lock(mutex_);
      if (count_ > 0) {
        notifications_.emplace_back(queue, std::move(item));
        return;
      }
    }
    dispatch_async(queue, std::move(item));
  }

 private:
  std::mutex mutex_;  // guards all below
  std::condition_variable emptied_;
  unsigned long count_ = 0;
  std::vector<std::pair<dispatch_queue_t, Block>> notifications_;
};

class Semaphore {
 public:
  explicit Semaphore(long value) : value_(value) {}

  long wait(dispatch_time_t deadline) {
    std::unique_lock lock(mutex_);
    if (!waitUntil(lock, raised_, deadline, [this] { return value_ > 0; })) return 1;
    --value_;
    return 0;
  }
  void signal() {
    {
      const std::scoped_lock lock(mutex_);
      ++value_;
    }
    raised_.notify_one();
  }

 private:
  std::mutex mutex_;  // guards all below
  std::condition_variable raised_;
  long value_;
};

}  // namespace dispatch

// Waiters are notified without the lock, or they would wake only to wait for that. So either side may let go
// of a group or semaphore as soon as the other has done its part, and each keeps it meanwhile.

dispatch_group_t dispatch_group_create() { return std::make_shared<dispatch::Group>(); }
void dispatch_group_enter(const dispatch_group_t& group) { group->enter(); }
void dispatch_group_leave(const dispatch_group_t& group) {
  const dispatch_group_t kept = group;  // NOLINT(performance-unnecessary-copy-initialization)
  kept->leave();
}

void dispatch_group_async(const dispatch_group_t& group, const dispatch_queue_t& queue, Block item) {
  group->enter();
  dispatch_async(queue, [group, item = std::move(item)]() mutable {
    item();
    item = Block();
    group->leave();
  });
}

long dispatch_group_wait(const dispatch_group_t& group, dispatch_time_t deadline) {
  const dispatch_group_t kept = group;  // NOLINT(performance-unnecessary-copy-initialization)
  return kept->wait(deadline);
}

void dispatch_group_notify(const dispatch_group_t& group, const dispatch_queue_t& queue, Block item) {
  group->notify(queue, std::move(item));
}

dispatch_semaphore_t dispatch_semaphore_create(long value) {
  return value < 0 ? nullptr : std::make_shared<dispatch::Semaphore>(value);
}

long dispatch_semaphore_wait(const dispatch_semaphore_t& semaphore, dispatch_time_t deadline) {
  const dispatch_semaphore_t kept = semaphore;  // NOLINT(performance-unnecessary-copy-initialization)
  return kept->wait(deadline);
}
void dispatch_semaphore_signal(const dispatch_semaphore_t& semaphore) {
  const dispatch_semaphore_t kept = semaphore;  // NOLINT(performance-unnecessary-copy-initialization)
  kept->signal();
}

dispatch_time_t dispatch_time(dispatch_time_t when, std::int64_t delta) {
  if (when == DISPATCH_TIME_FOREVER) return when;
  const dispatch_time_t base = when == DISPATCH_TIME_NOW ? Clock::current().now() : when;
  const auto distance = static_cast<std::uint64_t>(delta);
  if (delta >= 0)
    return base >= DISPATCH_TIME_FOREVER - 1 - distance ? DISPATCH_TIME_FOREVER - 1 : base + distance;
  const std::uint64_t back = ~distance + 1;
  return back >= base ? 1 : base - back;
}

void dispatch_sleep_until(dispatch_time_t deadline) {
  std::mutex mutex;
  std::condition_variable never_notified;
  std::unique_lock lock(mutex);
  dispatch::waitUntil(lock, never_notified, deadline, [] { return false; });
}

}  // namespace kelvane
