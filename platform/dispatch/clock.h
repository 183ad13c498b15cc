#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace kelvane {

/// The one source of time. It drives "now", every deadline and every timer of the process, so that whoever
/// moves it moves all of them together. All members may be called on any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Nanoseconds on the host's monotonic clock.
  [[nodiscard]] virtual std::uint64_t now() const = 0;
  /// Microseconds since 1970 by the calendar.
  [[nodiscard]] virtual std::int64_t calendarMicroseconds() const = 0;
  /// Blocks on `wakeup` (with `lock` held, as a condition variable does) until it is notified or `deadline`
  /// (in `now` units; DISPATCH_TIME_FOREVER for none) has come. May return early; the caller looks again.
  virtual void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                    std::uint64_t deadline) = 0;
  /// How many real nanoseconds to let pass before a timer due at `deadline` is worth looking at; nothing when
  /// the clock does not go by itself and calls `dispatch_clock_moved` instead. 0 when it is due already.
  [[nodiscard]] virtual std::optional<std::uint64_t> realDelay(std::uint64_t deadline) const = 0;

  /// The clock of this process: the host's own until `install` was called.
  static Clock& current();
  /// Replaces the clock; null puts the host's own back. Call it before the queues have work.
  static void install(Clock* clock);
};

}  // namespace kelvane
