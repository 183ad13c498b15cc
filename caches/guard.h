#pragma once

// While a worker is busy with a root, watches for two reasons to stop: the report is no longer wanted, or the
// program that owns the cache has been started.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "caches/in_use.h"
#include "kelvane/cancellation.h"

namespace kelvane::caches {

class Guard {
 public:
  /// `socket` is the connection to the process that waits. It must outlive this.
  explicit Guard(int socket);
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  /// The cancellation of the work on a root with these signs, which must live until the next call. Null: the
  /// work on the root is over.
  client::Cancellation watch(const Signs* signs);
  /// The report is no longer wanted.
  [[nodiscard]] bool isCancelled() const { return cancelled_; }

 private:
  void run();

  const int socket_;
  std::atomic<bool> cancelled_ = false;
  std::mutex mutex_;
  const Signs* signs_ = nullptr;             // guarded by mutex_
  std::shared_ptr<std::atomic<bool>> flag_;  // guarded by mutex_; what it points to is atomic
  int wake_ = -1;                            // constant after construction
  std::thread thread_;                       // constant after construction
};

}  // namespace kelvane::caches
