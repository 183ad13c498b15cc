#pragma once

// Waiting for what other threads do, without a time limit of its own: the test program has one.

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace kelvane::tests {

/// Notes what happens. Any thread.
class Events {
 public:
  void note(const std::string& event) {
    const std::lock_guard lock(mutex_);
    events_.insert(event);
    changed_.notify_all();
  }
  /// Blocks until it has happened, and takes one of it away.
  void await(const std::string& event) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return events_.contains(event); });
    events_.erase(events_.find(event));
  }
  [[nodiscard]] bool has(const std::string& event) const {
    const std::lock_guard lock(mutex_);
    return events_.contains(event);
  }
  [[nodiscard]] std::size_t count() const {
    const std::lock_guard lock(mutex_);
    return events_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::multiset<std::string> events_;  // guarded by mutex_
};

}  // namespace kelvane::tests
