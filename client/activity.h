#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>

#include "client/moment.h"

namespace kelvane::client {

/// Whether something is going on, and since when nothing is. Any thread.
class Activity final : public std::enable_shared_from_this<Activity> {
 public:
  Activity() : idle_since_(present()) {}

  /// Something goes on for as long as what is returned, or a copy of it, lives.
  [[nodiscard]] std::shared_ptr<void> begin() {
    const std::lock_guard lock(mutex_);
    ++going_on_;
    return {this, [self = shared_from_this()](void*) { self->end(); }};
  }
  /// Nothing while something goes on.
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
