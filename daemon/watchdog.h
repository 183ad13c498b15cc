#pragma once

// Tells the service manager that the daemon still serves.
//
// Only its registry can block the daemon permanently: a check-in waits for the service's answer to a ping,
// with the registry's queue suspended and without a time limit. So the message that the service manager waits
// for is sent by an item of that queue. While the queue is blocked no message is sent, and the service
// manager eventually restarts the daemon.

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"

namespace kelvane {

class Watchdog : public std::enable_shared_from_this<Watchdog> {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Watches `queue` until this object is destroyed. Null if no service manager waits for messages.
  [[nodiscard]] static std::shared_ptr<Watchdog> over(const dispatch_queue_t& queue);

  Watchdog(Key /*key*/, dispatch_queue_t queue, std::int64_t interval)
      : queue_(std::move(queue)), interval_(interval) {}

 private:
  void setTimer();
  void look();

  const dispatch_queue_t queue_;
  const std::int64_t interval_;  // nanoseconds
  Timer timer_;                  // set before it is shared, then only on queue_
};

}  // namespace kelvane
