#include "platform/dispatch/executor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/dispatch/fatal.h"
#include "platform/dispatch/thread.h"

namespace kelvane {

void dispatch_clock_moved() { dispatch::Executor::shared().runDueTimers(); }

DispatchStatistics dispatch_statistics() { return dispatch::Executor::shared().statistics(); }

}  // namespace kelvane

namespace kelvane::dispatch {
namespace {

constexpr unsigned most_threads = 1024;
constexpr auto poll_is_due_after = std::chrono::milliseconds(1);
constexpr auto watchman_looks_every = std::chrono::milliseconds(2);
constexpr unsigned poll_is_left_alone_after = 3;  // looks in a row
constexpr unsigned running_is_trusted_for = 10;   // looks in a row
constexpr std::size_t most_threads_asked_about = 64;
constexpr unsigned backlog_stays_after = 50;         // looks in a row
constexpr std::uint64_t watchman_lingers_above = 4;  // runnables in one look

// What epoll reports for the two descriptors of the executor itself; no source has these.
constexpr std::uint64_t wakeup_identity = 0;
constexpr std::uint64_t timer_identity = 1;

thread_local bool on_pool_thread = false;

/// Whether the kernel has the thread of this process running, or ready to. False when it does not say.
bool runs(pid_t thread) {
  // The state stands behind the name, which is in parentheses and may hold any.
  std::array<char, 64> text{};
  const int file =
      ::open(("/proc/self/task/" + std::to_string(thread) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const ssize_t length = ::read(file, text.data(), text.size());
  ::close(file);
  const std::string_view seen(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::size_t name_end = seen.rfind(')');
  return name_end != std::string_view::npos && seen.substr(name_end).starts_with(") R");
}

/// 0 disarms it.
void armTimer(int descriptor, std::chrono::nanoseconds delay) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(delay);
  itimerspec timer{};
  timer.it_value.tv_sec = seconds.count();
  timer.it_value.tv_nsec = (delay - seconds).count();
  ::timerfd_settime(descriptor, 0, &timer, nullptr);
}

bool watchDescriptor(int epoll, int descriptor, std::uint32_t events, std::uint64_t identity) {
  epoll_event event{};
  event.events = events | EPOLLET;
  event.data.u64 = identity;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

Executor& Executor::shared() {
  static Executor& executor = *new Executor;
  return executor;
}

Executor::Executor()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeup_event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_descriptor_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      watchman_timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)),
      cores_(std::max(1U, std::thread::hardware_concurrency())) {
  if (!watchDescriptor(epoll_, wakeup_event_, EPOLLIN, wakeup_identity) ||
      !watchDescriptor(epoll_, timer_descriptor_, EPOLLIN, timer_identity) || watchman_timer_ < 0) {
    fatal("cannot create the pool's descriptors", std::strerror(errno));
  }
  startThread([] { shared().watch(); }).detach();
}

void Executor::submit(std::shared_ptr<Runnable> runnable) {
  const Lock lock(mutex_);
  ready_.push_back(std::move(runnable));
  // A thread at work comes to it by itself, or the watchman sees that it does not.
  if (busy_ == 0 && notified_ == 0) {
    callThread();
  } else {
    callTheWatchman();
  }
}

/// Gets one more thread to look at the ready list and at epoll.
void Executor::callThread() {
  if (idle_ > notified_) {
    ++notified_;
    idle_wakeup_.notify_one();
  } else if (polling_) {
    wakePoller();
  } else {
    addThread();
  }
}

void Executor::addThread() {
  if (threads_ >= most_threads) return;
  ++threads_;
  ++busy_;
  try {
    startThread([] { shared().work(); }).detach();
  } catch (const std::system_error&) {
    // The threads there are must do; the watchman tries again.
    --threads_;
    --busy_;
    if (threads_ == 0) fatal("cannot start the first thread of the pool");
  }
}

void Executor::work() {
  on_pool_thread = true;
  const pid_t ID = ::gettid();
  Lock lock(mutex_);
  thread_IDs_.insert(ID);
  for (;;) {
    if (!ready_.empty() && (polling_ || !pollIsDue())) {
      runReady(lock);
    } else if (!polling_) {
      poll(lock);
    } else if (!idle(lock)) {
      break;
    }
  }
  thread_IDs_.erase(ID);
  --threads_;
  --busy_;
}

void Executor::runReady(Lock& lock) {
  std::shared_ptr<Runnable> runnable = std::move(ready_.front());
  ready_.pop_front();
  ++taken_;
  callTheWatchman();
  lock.unlock();
  runnable->run();
  runnable.reset();
  lock.lock();
}

bool Executor::pollIsDue() const { return std::chrono::steady_clock::now() - polled_ >= poll_is_due_after; }

void Executor::poll(Lock& lock) {
  std::array<epoll_event, 64> events;
  polling_ = true;
  const int patience = ready_.empty() ? -1 : 0;
  --busy_;
  if (patience < 0 && busy_ == 0 && after_timer_ && called_) sendTheWatchmanBack();
  lock.unlock();
  const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), patience);
  bool timers_due = false;
  // Dropped without the lock: each may be the last reference, and what the handler holds may come back here
  // when it is destroyed.
  std::vector<std::shared_ptr<EventSourceState>> due_already;
  lock.lock();
  ++busy_;
  ++polls_;
  polling_ = false;
  polled_ = std::chrono::steady_clock::now();
  after_timer_ = count == 1 && events[0].data.u64 == timer_identity;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    if (event.data.u64 == timer_identity) {
      timers_due = true;
      armed_ = 0;
    }
    const auto source = sources_.find(event.data.u64);
    if (source == sources_.end()) continue;
    auto state = source->second.lock();
    if (state == nullptr) continue;
    if (state->note(event.events)) {
      ready_.push_back(std::move(state));
    } else {
      due_already.push_back(std::move(state));
    }
  }
  if (!timers_due && due_already.empty()) return;
  lock.unlock();
  due_already.clear();
  if (timers_due) runDueTimers();
  lock.lock();
}

/// Returns false when the thread has idled long enough and is to end.
bool Executor::idle(Lock& lock) {
  ++idle_;
  --busy_;
  const bool called = idle_wakeup_.wait_for(lock, idle_threads_go_after_, [this] { return notified_ > 0; });
  --idle_;
  ++busy_;
  if (called) --notified_;
  return called;
}

void Executor::callTheWatchman() {
  if (watching_) return;
  watching_ = true;
  called_ = true;
  seen_ = {taken_, polls_};
  armTimer(watchman_timer_, watchman_looks_every);
}

void Executor::sendTheWatchmanBack() {
  watching_ = false;
  called_ = false;
  armTimer(watchman_timer_, std::chrono::nanoseconds(0));
}

/// Until the next look, or the next call.
void Executor::watchmanSleeps(Lock& lock) {
  const bool lingers = watching_ && !called_;
  if (lingers) seen_ = {taken_, polls_};
  lock.unlock();
  if (lingers) {
    std::this_thread::sleep_for(watchman_looks_every);
  } else {
    std::uint64_t times = 0;
    const ssize_t length = ::read(watchman_timer_, &times, sizeof times);
    static_cast<void>(length);  // what is to be done stands in watching_
  }
  lock.lock();
  called_ = false;
}

void Executor::watch() {
  Lock lock(mutex_);
  unsigned looks_with_backlog = 0;
  unsigned looks_without_poll = 0;
  unsigned looks_left_alone = 0;
  for (;;) {
    watchmanSleeps(lock);
    if (!watching_) continue;
    looks_with_backlog = ready_.empty() ? 0 : looks_with_backlog + 1;
    looks_without_poll = polling_ || polls_ != seen_.polls ? 0 : looks_without_poll + 1;
    // A thread may be blocked for good. Nothing waits for it as long as nothing is ready and somebody polls.
    if (ready_.empty() && (busy_ == 0 || polling_)) {
      looks_left_alone = 0;
      watching_ = taken_ - seen_.taken > watchman_lingers_above;
      continue;
    }
    const bool backlog_stays = looks_with_backlog >= backlog_stays_after && busy_ < cores_;
    const bool left_alone =
        (!ready_.empty() && taken_ == seen_.taken) || looks_without_poll >= poll_is_left_alone_after;
    looks_left_alone = left_alone ? looks_left_alone + 1 : 0;
    if (backlog_stays || looks_left_alone > running_is_trusted_for || (left_alone && !aThreadRuns(lock)))
      callThread();
  }
}

/// Looks without the lock.
bool Executor::aThreadRuns(Lock& lock) {
  if (threads_ > thread_IDs_.size() || notified_ > 0) return true;  // one is on its way
  const std::set<pid_t> IDs = thread_IDs_;
  if (IDs.size() > most_threads_asked_about) return false;
  lock.unlock();
  const bool any = std::any_of(IDs.begin(), IDs.end(), runs);
  lock.lock();
  return any;
}

void Executor::wakePoller() const {
  const std::uint64_t one = 1;
  const ssize_t written = ::write(wakeup_event_, &one, sizeof one);
  static_cast<void>(written);  // a full counter has woken the poller as well
}

void Executor::beginBlocking() {
  const Lock lock(mutex_);
  --busy_;
  const bool left_alone = !ready_.empty() || !polling_;
  if (left_alone && busy_ == 0 && notified_ == 0) callThread();
}

void Executor::endBlocking() {
  const Lock lock(mutex_);
  ++busy_;
  callTheWatchman();
}

BlockingRegion::BlockingRegion() {
  if (on_pool_thread) Executor::shared().beginBlocking();
}
BlockingRegion::~BlockingRegion() {
  if (on_pool_thread) Executor::shared().endBlocking();
}

// --- sources ---

bool Executor::addSource(const std::shared_ptr<EventSourceState>& source, int descriptor,
                         std::uint32_t events) {
  const Lock lock(mutex_);
  if (!watchDescriptor(epoll_, descriptor, events, source->identity())) return false;
  sources_.emplace(source->identity(), source);
  // Nobody polls before the first runnable or source needs a thread.
  if (threads_ == 0) addThread();
  return true;
}

void Executor::changeSource(const EventSourceState& source, int descriptor, std::uint32_t events) {
  const Lock lock(mutex_);
  if (!sources_.contains(source.identity())) return;
  epoll_event event{};
  event.events = events | EPOLLET;
  event.data.u64 = source.identity();
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &event);
}

void Executor::removeSource(const EventSourceState& source, int descriptor) {
  const Lock lock(mutex_);
  if (sources_.erase(source.identity()) == 0) return;
  if (descriptor >= 0) ::epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
}

// --- timers ---

void Executor::setTimer(const std::shared_ptr<TimerState>& timer, std::uint64_t deadline) {
  const Lock lock(mutex_);
  timer->place = timers_.emplace_hint(timers_.end(), deadline, timer);  // most come in order
  timer->placed = true;
  armTimerDescriptor(deadline);
  if (threads_ == 0) addThread();
}

void Executor::removeTimer(TimerState& timer) {
  const Lock lock(mutex_);
  if (!timer.placed) return;
  timer.placed = false;
  timers_.erase(timer.place);
}

/// Does nothing if the kernel's timer expires earlier, even for a timer that has been removed: it is set
/// again when it expires. So timers that rarely expire cost no system calls.
void Executor::armTimerDescriptor(std::uint64_t deadline) {
  const std::optional<std::uint64_t> delay = Clock::current().realDelay(deadline);
  if (!delay || (armed_ != 0 && armed_ <= deadline)) return;
  armed_ = deadline;
  armTimer(timer_descriptor_, std::chrono::nanoseconds(std::max<std::uint64_t>(*delay, 1)));
}

void Executor::runDueTimers() {
  const std::uint64_t now = Clock::current().now();
  std::deque<std::shared_ptr<TimerState>> due;
  {
    const Lock lock(mutex_);
    while (!timers_.empty() && timers_.begin()->first <= now) {
      due.push_back(timers_.begin()->second);
      due.back()->placed = false;
      timers_.erase(timers_.begin());
    }
    if (!timers_.empty()) armTimerDescriptor(timers_.begin()->first);
  }
  for (const auto& timer : due) {
    dispatch_async(timer->queue, [timer] {
      if (!timer->cancelled.load()) timer->handler();
      timer->handler = Block();
    });
  }
}

void Executor::letIdleThreadsGoAfter(std::chrono::nanoseconds time) {
  const Lock lock(mutex_);
  idle_threads_go_after_ = time;
}

DispatchStatistics Executor::statistics() {
  const Lock lock(mutex_);
  return {threads_, static_cast<unsigned>(sources_.size()), static_cast<unsigned>(timers_.size())};
}

}  // namespace kelvane::dispatch
