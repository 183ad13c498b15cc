#include "daemon/watchdog.h"

#include <algorithm>
#include <utility>

#include "platform/host/service_manager.h"

namespace kelvane {
namespace {

/// A message may be late by twice the interval before the service manager loses patience.
constexpr std::uint64_t messages_in_a_patience = 3;
constexpr std::uint64_t longest_interval = 3'600'000'000;  // microseconds
constexpr std::int64_t nanoseconds = 1000;                 // in a microsecond

}  // namespace

std::shared_ptr<Watchdog> Watchdog::over(const dispatch_queue_t& queue) {
  const auto patience = serviceManagerPatience();
  if (!patience) return nullptr;
  const std::uint64_t interval = std::min(*patience / messages_in_a_patience, longest_interval);
  auto watchdog = std::make_shared<Watchdog>(Key(), queue, static_cast<std::int64_t>(interval) * nanoseconds);
  watchdog->setTimer();
  return watchdog;
}

void Watchdog::setTimer() {
  timer_ = Timer(dispatch_time(DISPATCH_TIME_NOW, interval_), queue_, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->look();
  });
}

/// On the queue, so the queue runs.
void Watchdog::look() {
  notifyAlive();
  setTimer();
}

}  // namespace kelvane
