#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace kelvane::client {

/// Says whether a purge, or the answer to a question, is still wanted: no longer when the daemon cancels the
/// purge, when the connection it came over has ended (the daemon waits no longer) and when the Service is
/// being destroyed. Cheap to copy; any thread.
class Cancellation {
 public:
  using Flag = std::shared_ptr<const std::atomic<bool>>;
  explicit Cancellation(Flag flag) : flag_(std::move(flag)) {}
  [[nodiscard]] bool isCancelled() const { return flag_->load(std::memory_order_relaxed); }

 private:
  Flag flag_;
};

}  // namespace kelvane::client
