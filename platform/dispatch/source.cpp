#include "platform/dispatch/source.h"

#include <sys/epoll.h>
#include <utility>

#include "platform/dispatch/executor.h"

namespace kelvane {
namespace dispatch {
namespace {

constexpr std::uint64_t run_is_due = 1ULL << 32;
constexpr std::uint32_t asked_for = 1U << 31;  // by `again`; epoll reports no such event

std::atomic<std::uint64_t> next_identity{2};  // epoll's own descriptors come before

}  // namespace

EventSourceState::EventSourceState(int descriptor, std::function<void(std::uint32_t)> handler)
    : descriptor_(descriptor), identity_(next_identity.fetch_add(1)), handler_(std::move(handler)) {}

bool EventSourceState::note(std::uint32_t events) {
  return (bits_.fetch_or(run_is_due | events, std::memory_order_acq_rel) & run_is_due) == 0;
}

void EventSourceState::fire(std::uint32_t events) {
  if (note(events)) Executor::shared().submit(shared_from_this());
}

void EventSourceState::again() { fire(asked_for); }

void EventSourceState::run() noexcept {
  const std::uint64_t bits = bits_.exchange(run_is_due, std::memory_order_acq_rel);
  if (!cancelled_.load(std::memory_order_acquire)) handler_(static_cast<std::uint32_t>(bits) & ~asked_for);
  std::uint64_t nothing_new = run_is_due;
  if (!bits_.compare_exchange_strong(nothing_new, 0, std::memory_order_acq_rel)) {
    Executor::shared().submit(shared_from_this());
  }
}

void EventSourceState::setEvents(std::uint32_t events) {
  Executor::shared().changeSource(*this, descriptor_, events);
}

void EventSourceState::cancel(bool is_closed_next) {
  if (!cancelled_.exchange(true)) Executor::shared().removeSource(*this, is_closed_next ? -1 : descriptor_);
}

}  // namespace dispatch

EventSource::EventSource(int descriptor, std::uint32_t events, Handler handler)
    : state_(std::make_shared<dispatch::EventSourceState>(descriptor, std::move(handler))) {
  if (!dispatch::Executor::shared().addSource(state_, descriptor, events)) state_->fire(EPOLLERR);
}

EventSource& EventSource::operator=(EventSource&& other) noexcept {
  cancel();
  state_ = std::move(other.state_);
  return *this;
}

void EventSource::again() {
  if (state_ != nullptr) state_->again();
}

void EventSource::setEvents(std::uint32_t events) {
  if (state_ != nullptr) state_->setEvents(events);
}

void EventSource::cancel() {
  if (state_ != nullptr) state_->cancel(false);
}

void EventSource::cancelBeforeClose() {
  if (state_ != nullptr) state_->cancel(true);
}

Timer::Timer(dispatch_time_t deadline, dispatch_queue_t queue, Block handler)
    : state_(std::make_shared<dispatch::TimerState>()) {
  state_->queue = std::move(queue);
  state_->handler = std::move(handler);
  dispatch::Executor::shared().setTimer(state_, deadline);
}

Timer& Timer::operator=(Timer&& other) noexcept {
  cancel();
  state_ = std::move(other.state_);
  return *this;
}

void Timer::cancel() {
  if (state_ == nullptr) return;
  state_->cancelled = true;
  dispatch::Executor::shared().removeTimer(*state_);
  state_.reset();
}

void dispatch_after(dispatch_time_t deadline, const dispatch_queue_t& queue, Block item) {
  auto timer = std::make_shared<dispatch::TimerState>();
  timer->queue = queue;
  timer->handler = std::move(item);
  dispatch::Executor::shared().setTimer(timer, deadline);
}

}  // namespace kelvane
