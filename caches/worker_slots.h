#pragma once

// Limits how many workers run at once: in all, for one user, and for each call an equal part. A worker that
// was killed but does not end, for example because it waits for a dead file system, takes no slot; its user
// gets no other worker until it has ended.

#include <sys/types.h>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// Any thread.
class WorkerSlots {
 public:
  static constexpr std::size_t most = 16;
  static constexpr std::size_t most_of_one_user = 4;

  enum class Slot { taken, busy, stuck };

  /// One call's claim on slots, for as long as it lives.
  class Call {
   public:
    explicit Call(WorkerSlots& slots);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    /// busy: try again later. stuck: an earlier worker of the user does not end.
    [[nodiscard]] Slot take(uid_t user);
    void giveBack(uid_t user);
    /// Gives back the slot of a worker that was killed. `socket` is its report, which ends with the process.
    void abandon(uid_t user, FileDescriptor socket);

   private:
    WorkerSlots& slots_;
    std::size_t taken_ = 0;  // guarded by slots_.mutex_
  };

  /// Users whose last worker was late wait until the others have run.
  void setLate(uid_t user, bool late);
  [[nodiscard]] bool wasLate(uid_t user) const;

 private:
  struct Abandoned {
    FileDescriptor socket;
    std::chrono::steady_clock::time_point since;
  };
  static bool hasEnded(const Abandoned& worker);

  mutable std::mutex mutex_;  // guards all below
  std::size_t calls_ = 0;
  std::size_t taken_ = 0;
  std::map<uid_t, std::size_t> taken_of_;
  std::map<uid_t, std::vector<Abandoned>> abandoned_;
  std::set<uid_t> late_;
};

}  // namespace kelvane::caches
