#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kelvane/value.h"

namespace kelvane {

/// The notifications of one service. A service that never answers would collect a connection for each, so a
/// bounded number is under way at a time. Of the others the newest of each name is kept, and sent in the
/// place of one that is done: a service that is merely slow learns the last value. Any thread.
class NotificationOutbox {
 public:
  static constexpr unsigned most_under_way = 16;

  struct Notification {
    std::string name;
    Value value;
  };

  /// Whether to send it now. It is then under way until `finish`; otherwise it is kept.
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
  /// One is done. Another one, to be sent in its place and under way from now on, if any was kept.
  [[nodiscard]] std::optional<Notification> finish() {
    const std::lock_guard lock(mutex_);
    if (kept_.empty()) {
      --under_way_;
      return std::nullopt;
    }
    auto next = kept_.extract(kept_.begin());
    return Notification{std::move(next.key()), std::move(next.mapped())};
  }
  /// What was kept under this name is not wanted any more.
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
