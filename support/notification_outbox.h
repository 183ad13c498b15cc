#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kelvane/value.h"

namespace kelvane {

/// The notifications to one service. Each takes a connection until it is answered, so the number of
/// unanswered ones is limited. Of the others, the newest of each name is kept, and sent once another one is
/// answered: a service that is merely slow still gets the last value. Any thread.
class NotificationOutbox {
 public:
  static constexpr unsigned most_under_way = 16;

  struct Notification {
    std::string name;
    Value value;
  };

  /// Whether to send it now. If so, it is in flight until `finish`; otherwise it is kept.
  [[nodiscard]] bool start(const Notification& notification) {
    const std::lock_guard lock(mutex_);
    kept_.erase(notification.name);  // older, whether it is replaced or overtaken
    if (under_way_ < most_under_way) {
      ++under_way_;
      return true;
    }
    kept_.emplace(notification.name, notification.value);
    return false;
  }
  /// One is answered. Returns a kept one to send now, which is then in flight, if there is any.
  [[nodiscard]] std::optional<Notification> finish() {
    const std::lock_guard lock(mutex_);
    if (kept_.empty()) {
      --under_way_;
      return std::nullopt;
    }
    auto next = kept_.extract(kept_.begin());
    return Notification{std::move(next.key()), std::move(next.mapped())};
  }
  /// Drops the notification kept under this name.
  void drop(const std::string& name) {
    const std::lock_guard lock(mutex_);
    kept_.erase(name);
  }

 private:
  std::mutex mutex_;  // guards all below
  unsigned under_way_ = 0;
  std::map<std::string, Value> kept_;
};

}  // namespace kelvane
