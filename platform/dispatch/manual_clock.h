#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>

#include "platform/dispatch/clock.h"

namespace kelvane {

/// A clock that stands still until it is moved. It installs itself for as long as it lives. Threads that wait
/// for a deadline and timers that are set are known to it, so that a mover can wait, without guessing, until
/// the deadline it means to pass has been taken.
class ManualClock final : public Clock {
 public:
  /// Starts at `start` nanoseconds, an hour by default, so that an absolute time of a few seconds is past.
  explicit ManualClock(std::uint64_t start = 3'600'000'000'000,
                       std::int64_t calendar = 1'700'000'000'000'000);
  ~ManualClock() override;
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  /// Moves now and the calendar on; what became due is on its way when this returns.
  void advance(std::uint64_t nanoseconds);
  /// Blocks (in real time) until a thread waits for, or a timer is set to, exactly now + `nanoseconds`; or as
  /// many of them as are said.
  void awaitWaiterFor(std::uint64_t nanoseconds, std::size_t waiters = 1);
  /// The two above together: nothing is moved until somebody waits for that moment.
  void advanceToWaiterFor(std::uint64_t nanoseconds) {
    awaitWaiterFor(nanoseconds);
    advance(nanoseconds);
  }

  [[nodiscard]] std::uint64_t now() const override { return now_.load(); }
  [[nodiscard]] std::int64_t calendarMicroseconds() const override { return calendar_.load(); }
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
            std::uint64_t deadline) override;
  [[nodiscard]] std::optional<std::uint64_t> realDelay(std::uint64_t deadline) const override;

 private:
  std::atomic<std::uint64_t> now_;
  std::atomic<std::int64_t> calendar_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::multiset<std::uint64_t> waiters_;         // guarded by mutex_: deadlines that threads wait for
  mutable std::multiset<std::uint64_t> timers_;  // guarded by mutex_: deadlines that timers were set to
};

}  // namespace kelvane
