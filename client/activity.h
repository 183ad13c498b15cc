#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>

#include "client/moment.h"

namespace kelvane::client {

/// Knows whether any activity is under way, and since when there has been none. Any thread.
class Activity final : public std::enable_shared_from_this<Activity> {
 public:
  Activity() : idle_since_(present()) {}

  /// An activity lasts as long as the returned pointer, or a copy of it.
  [[nodiscard]] std::shared_ptr<void> begin() {
    const std::lock_guard lock(mutex_);
    ++going_on_;
    return {this, [self = shared_from_this()](void*) { self->end(); }};
  }
  /// Nothing while an activity is under way.
  [[nodiscard]] std::optional<Moment> idleSince() const {
    const std::lock_guard lock(mutex_);
    if (going_on_ > 0) return std::nullopt;
    return idle_since_;
  }

 private:
  void end() {
    const std::lock_guard lock(mutex_);
    if (--going_on_ == 0) idle_since_ = present();
  }

  mutable std::mutex mutex_;  // guards all below
  std::size_t going_on_ = 0;
  Moment idle_since_;
};

}  // namespace kelvane::client
