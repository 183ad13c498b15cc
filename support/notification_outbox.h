#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kelvane/value.h"

namespace kelvane {

/// The notifications to one service. Each takes a connection until it is answered, so they are sent one at
/// a time, in order. When too many wait, a further one replaces the latest of its name: a slow service
/// still gets the last value, and nothing accumulates for a service that never answers. Callable on any
/// thread.
class NotificationOutbox {
 public:
  static constexpr std::size_t most_waiting = 15;

  struct Notification {
    std::string name;
    Value value;
  };

  /// Whether to send it now. If so, it is under way until `finish`; otherwise it waits.
  [[nodiscard]] bool start(const Notification& notification) {
    const std::lock_guard lock(mutex_);
    if (!is_under_way_) {
      is_under_way_ = true;
      return true;
    }
    if (waiting_.size() >= most_waiting) dropLast(notification.name);
    waiting_.push_back(notification);
    return false;
  }
  /// Ends the one under way. Returns the next one to send, which is then under way, if any waits.
  [[nodiscard]] std::optional<Notification> finish() {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty()) {
      is_under_way_ = false;
      return std::nullopt;
    }
    Notification next = std::move(waiting_.front());
    waiting_.pop_front();
    return next;
  }
  /// Drops those that wait under this name.
  void drop(const std::string& name) {
    const std::lock_guard lock(mutex_);
    std::erase_if(waiting_, [&](const Notification& waiting) { return waiting.name == name; });
  }

 private:
  /// With mutex_ held.
  void dropLast(const std::string& name) {
    const auto last = std::find_if(waiting_.rbegin(), waiting_.rend(),
                                   [&](const Notification& waiting) { return waiting.name == name; });
    if (last != waiting_.rend()) waiting_.erase(std::next(last).base());
  }

  std::mutex mutex_;  // guards all below
  bool is_under_way_ = false;
  std::deque<Notification> waiting_;
};

}  // namespace kelvane
