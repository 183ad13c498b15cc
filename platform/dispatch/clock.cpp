#include "platform/dispatch/clock.h"

#include <atomic>
#include <chrono>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/dispatch/time.h"

namespace kelvane {
namespace {

class HostClock final : public Clock {
 public:
  [[nodiscard]] std::uint64_t now() const override {
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                      std::chrono::nanoseconds(1));
  }
  [[nodiscard]] std::int64_t calendarMicroseconds() const override {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
  }
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
            std::uint64_t deadline) override {
    // A deadline centuries away would overflow the library's own arithmetic; nobody waits that long.
    constexpr std::uint64_t longest = 1ULL << 62;
    if (deadline >= longest) {
      wakeup.wait(lock);
    } else {
      const std::chrono::nanoseconds since_start(static_cast<std::int64_t>(deadline));
      wakeup.wait_until(lock,
                        std::chrono::steady_clock::time_point(
                            std::chrono::duration_cast<std::chrono::steady_clock::duration>(since_start)));
    }
  }
  [[nodiscard]] std::optional<std::uint64_t> realDelay(std::uint64_t deadline) const override {
    const std::uint64_t current = now();
    return deadline > current ? deadline - current : 0;
  }
};

/// Never destroyed, since threads of the pool may look at the time while the process exits.
Clock& hostClock() {
  static Clock& clock = *new HostClock;
  return clock;
}

std::atomic<Clock*> installed{nullptr};  // null for the host's own

}  // namespace

Clock& Clock::current() {
  Clock* const clock = installed.load(std::memory_order_acquire);
  return clock != nullptr ? *clock : hostClock();
}

void Clock::install(Clock* clock) { installed.store(clock, std::memory_order_release); }

ManualClock::ManualClock(std::uint64_t start, std::int64_t calendar) : now_(start), calendar_(calendar) {
  install(this);
}

ManualClock::~ManualClock() { install(nullptr); }

void ManualClock::advance(std::uint64_t nanoseconds) {
  now_ += nanoseconds;
  calendar_ += static_cast<std::int64_t>(nanoseconds / 1000);
  {
    const std::scoped_lock lock(mutex_);
    timers_.erase(timers_.begin(), timers_.upper_bound(now_.load()));
  }
  dispatch_clock_moved();
}

void ManualClock::awaitWaiterFor(std::uint64_t nanoseconds, std::size_t waiters) {
  const std::uint64_t deadline = now_.load() + nanoseconds;
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return waiters_.count(deadline) + timers_.count(deadline) >= waiters; });
}

void ManualClock::wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                       std::uint64_t deadline) {
  if (deadline == DISPATCH_TIME_FOREVER) {
    wakeup.wait(lock);
    return;
  }
  if (now_.load() >= deadline) return;
  {
    const std::scoped_lock registration(mutex_);
    waiters_.insert(deadline);
    changed_.notify_all();
  }
  // The mover cannot take `lock` to wake this thread without risking a deadlock with its holder, so this
  // thread looks for itself, often enough for nobody to notice.
  wakeup.wait_for(lock, std::chrono::milliseconds(1));
  const std::scoped_lock registration(mutex_);
  waiters_.erase(waiters_.find(deadline));
}

std::optional<std::uint64_t> ManualClock::realDelay(std::uint64_t deadline) const {
  if (now_.load() >= deadline) return 0;
  const std::scoped_lock lock(mutex_);
  timers_.insert(deadline);
  changed_.notify_all();
  return std::nullopt;
}

}  // namespace kelvane
