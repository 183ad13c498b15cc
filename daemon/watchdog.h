#pragma once

// Tells the service manager that the daemon still serves, as long as that is so.
//
// What can stop the daemon for good is its registry: a check-in waits for the service's answer to a ping, on
// the registry's queue and without a limit. So the message that the service manager waits for is sent by an
// item of that very queue. While the queue is held up no message goes out, and in the end the service manager
// starts a daemon that serves again.

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
  /// Watches over `queue` until it is destroyed. Null when no service manager waits for messages.
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
