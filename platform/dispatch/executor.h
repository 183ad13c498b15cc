#pragma once

// The pool of threads under the queues. Used by the files of this folder; others use queue.h and source.h.
//
// The model. There is one list of ready runnables, and one epoll descriptor. A thread of the pool takes the
// first ready runnable; when there is none, one thread at a time (the poller) waits in epoll, and the rest
// wait to be notified, and go after a while. A queue with many items goes back to the list's end after a few,
// or after a millisecond, and when as much has passed since the poll was last looked at, it is: so a long
// queue keeps neither others nor messages waiting. Looking more often would find messages one at a time, and
// in the processes at their other ends wake threads for one message at a time.
//
// Waking a thread costs more than most runnables take. So making something ready wakes nobody while a thread
// of the pool is at work: that one will come to it as soon as it is done. The poller, likewise, runs what it
// found by itself, and nobody polls meanwhile. Two things keep that honest:
//
//  * A thread that is about to block in a queue, group, semaphore or sleep (BlockingRegion) first sees to it
//    that another thread takes over the ready list and the poll.
//  * A thread may block, or compute, without telling. While any thread is at work, the watchman looks every
//    two milliseconds. It adds a thread when ready work has been left alone since the last look, or the poll
//    for three looks, and no thread of the pool is running: one that is, or that others keep from a
//    processor, comes to it by itself, and is given ten looks more. Where a processor is free it also adds
//    one when work has piled up for a tenth of a second: sooner it does not pay, since two threads that wait
//    for each other's queues are slower than one. It looks a last time after the work has ended, and then
//    sleeps without a time-out. It is called by a timer, two milliseconds after work has begun; where a timer
//    was all that began it and it ends before that, it is not woken at all: an idle process wakes one thread.
//
// So a runnable waits for a thread at most a few milliseconds when the others block, and a few hundredths of
// a second when they compute; and in the common case a message travels from the socket through its queues and
// back without changing threads.

#include <sys/types.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"

namespace kelvane {

/// To be called by a clock that does not go by itself, after it was moved.
void dispatch_clock_moved();

/// What the process has registered here, for those who check that nothing was left behind.
struct DispatchStatistics {
  unsigned threads;
  unsigned event_sources;
  unsigned timers;
};
[[nodiscard]] DispatchStatistics dispatch_statistics();

}  // namespace kelvane

namespace kelvane::dispatch {

class Runnable {
 public:
  virtual ~Runnable() = default;
  virtual void run() noexcept = 0;
};

class EventSourceState;

struct TimerState {
  dispatch_queue_t queue;  // constant
  std::atomic<bool> cancelled{false};
  Block handler;  // touched by the timer's owner before it is set, then by its queue only
  std::multimap<std::uint64_t, std::shared_ptr<TimerState>>::iterator place;  // guarded by the executor
  bool placed = false;                                                        // guarded by the executor
};

class Executor {
 public:
  /// The only one. Never destroyed, since its threads are never joined.
  static Executor& shared();

  void submit(std::shared_ptr<Runnable> runnable);

  /// False when the kernel does not take the descriptor.
  [[nodiscard]] bool addSource(const std::shared_ptr<EventSourceState>& source, int descriptor,
                               std::uint32_t events);
  void changeSource(const EventSourceState& source, int descriptor, std::uint32_t events);
  /// -1 for a descriptor that need not be taken out of epoll, because it is about to be closed.
  void removeSource(const EventSourceState& source, int descriptor);

  void setTimer(const std::shared_ptr<TimerState>& timer, std::uint64_t deadline);
  void removeTimer(TimerState& timer);
  void runDueTimers();

  [[nodiscard]] DispatchStatistics statistics();
  /// For tests. Threads that are idle already keep to what was said before.
  void letIdleThreadsGoAfter(std::chrono::nanoseconds time);

 private:
  friend class BlockingRegion;
  using Lock = std::unique_lock<std::mutex>;

  Executor();

  void work();
  void runReady(Lock& lock);
  [[nodiscard]] bool pollIsDue() const;
  void poll(Lock& lock);
  bool idle(Lock& lock);
  void watch();
  void callTheWatchman();
  void sendTheWatchmanBack();
  void watchmanSleeps(Lock& lock);
  bool aThreadRuns(Lock& lock);
  void callThread();
  void addThread();
  void wakePoller() const;
  void armTimerDescriptor(std::uint64_t deadline);
  void beginBlocking();
  void endBlocking();

  // Constant.
  int epoll_ = -1;
  int wakeup_event_ = -1;
  int timer_descriptor_ = -1;
  int watchman_timer_ = -1;
  unsigned cores_ = 1;

  std::mutex mutex_;  // guards all below
  std::deque<std::shared_ptr<Runnable>> ready_;
  std::condition_variable idle_wakeup_;
  std::chrono::nanoseconds idle_threads_go_after_ = std::chrono::seconds(5);
  unsigned threads_ = 0;
  std::set<pid_t> thread_IDs_;
  unsigned idle_ = 0;                             // waiting to be notified
  unsigned notified_ = 0;                         // idle ones that were notified and have not yet got up
  unsigned busy_ = 0;                             // running something and not blocked
  bool polling_ = false;                          // a thread is in epoll or about to be
  std::chrono::steady_clock::time_point polled_;  // when somebody last looked at epoll
  std::uint64_t taken_ = 0;
  std::uint64_t polls_ = 0;
  bool after_timer_ = false;  // the poll last found nothing but timers
  bool watching_ = false;     // the watchman is up, or called
  bool called_ = false;       // it will be up when its timer is due
  struct {
    std::uint64_t taken;
    std::uint64_t polls;
  } seen_{};  // what the watchman last saw, or would have when it was called
  std::unordered_map<std::uint64_t, std::weak_ptr<EventSourceState>> sources_;
  std::multimap<std::uint64_t, std::shared_ptr<TimerState>> timers_;
  std::uint64_t armed_ = 0;  // when the kernel's timer expires; 0 if it is not set
};

/// Stands for the time in which the calling thread is blocked in one of this folder's waits.
class BlockingRegion {
 public:
  BlockingRegion();
  ~BlockingRegion();
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;
};

/// The state behind an EventSource. `bits` holds the readiness not yet handled, and whether a run is due.
class EventSourceState final : public Runnable, public std::enable_shared_from_this<EventSourceState> {
 public:
  EventSourceState(int descriptor, std::function<void(std::uint32_t)> handler);
  void fire(std::uint32_t events);
  /// As `fire`, for the executor: true when the caller is to put this into its ready list.
  [[nodiscard]] bool note(std::uint32_t events);
  void again();
  void setEvents(std::uint32_t events);
  void run() noexcept override;
  void cancel(bool is_closed_next);
  [[nodiscard]] std::uint64_t identity() const { return identity_; }

 private:
  const int descriptor_;
  const std::uint64_t identity_;
  const std::function<void(std::uint32_t)> handler_;
  std::atomic<std::uint64_t> bits_{0};
  std::atomic<bool> cancelled_{false};
};

}  // namespace kelvane::dispatch
