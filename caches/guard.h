#pragma once

// Watches, while a worker is busy with a root, for what must stop it: nobody waits for the report any more,
// or the program whose cache it is has been started.

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
  /// `socket` leads to whoever waits. It must outlive this.
  explicit Guard(int socket);
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  /// What may stop the work on a root with these signs, which must outlive the next call. Null: the work on
  /// it is over.
  client::Cancellation watch(const Signs* signs);
  /// Nobody waits any more.
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
