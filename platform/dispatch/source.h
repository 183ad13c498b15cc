#pragma once

// What wakes the pool from outside: descriptors that become ready, and timers.

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/time.h"

namespace kelvane {

namespace dispatch {
class EventSourceState;
struct TimerState;
}  // namespace dispatch

/// Calls a handler on a thread of the pool when a descriptor becomes ready.
///
/// Readiness is reported on change (edge-triggered): the handler must use the descriptor until it would
/// block, or call `again`. Runs of one source's handler never overlap. The handler must be short, or block
/// only through queues, groups and semaphores. Destroying or cancelling the source ends it: no run starts
/// afterwards, though one under way on another thread goes on to its end. Cancel before closing the
/// descriptor. A descriptor that the kernel cannot watch is reported to the handler once, as EPOLLERR.
class EventSource {
 public:
  /// `events` and the handler's argument are epoll bits; the argument is 0 for a run that `again` asked for.
  using Handler = std::function<void(std::uint32_t events)>;

  EventSource() = default;
  EventSource(int descriptor, std::uint32_t events, Handler handler);
  EventSource(EventSource&&) noexcept = default;
  EventSource& operator=(EventSource&& other) noexcept;
  ~EventSource() { cancel(); }

  /// Runs the handler once more, after whatever else is ready.
  void again();
  /// Watches for these events from now on; what is ready already is reported again.
  void setEvents(std::uint32_t events);
  void cancel();
  /// The same where the descriptor is closed right after, and nobody has a copy of it: the kernel then
  /// forgets it by itself.
  void cancelBeforeClose();

 private:
  std::shared_ptr<dispatch::EventSourceState> state_;
};

/// Submits a handler to a queue once, when the clock reaches a deadline. Destroying the timer cancels it: its
/// handler does not start afterwards. When the timer is destroyed on its own queue, that is a guarantee; on
/// another thread a handler that has started goes on to its end.
class Timer {
 public:
  Timer() = default;
  Timer(dispatch_time_t deadline, dispatch_queue_t queue, Block handler);
  Timer(Timer&&) noexcept = default;
  Timer& operator=(Timer&& other) noexcept;
  ~Timer() { cancel(); }

  void cancel();
  [[nodiscard]] bool isSet() const { return state_ != nullptr; }

 private:
  std::shared_ptr<dispatch::TimerState> state_;
};

/// Submits `item` to `queue` when the clock reaches `deadline`.
void dispatch_after(dispatch_time_t deadline, const dispatch_queue_t& queue, Block item);

}  // namespace kelvane
