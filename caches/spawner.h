#pragma once

// The process that forks workers. It has one thread and root's rights, and only forks and kills its own
// children. With one thread, no child inherits a lock that another thread held.

#include <sys/types.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "caches/job.h"
#include "caches/worker_settings.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// The main process's handle of the spawner. Destroying it ends the spawner and its workers. Any thread.
class Spawner {
 public:
  /// Forks: only while the process has one thread, which must live as long as the process. Null, with errno,
  /// when that fails.
  static std::unique_ptr<Spawner> start(std::vector<Definition> definitions, WorkerSettings settings);
  ~Spawner();
  Spawner(const Spawner&) = delete;
  Spawner& operator=(const Spawner&) = delete;

  struct Worker {
    std::uint64_t number = 0;
    FileDescriptor socket;  // its report; end of file when the worker has ended
  };
  /// Nothing, with errno, when the request cannot be sent.
  [[nodiscard]] std::optional<Worker> startWorker(const Job& job);
  void kill(std::uint64_t worker);

 private:
  Spawner(FileDescriptor control, pid_t process) : control_(std::move(control)), process_(process) {}

  FileDescriptor control_;  // constant; each message is sent at once
  const pid_t process_;
  std::mutex mutex_;
  std::uint64_t last_ = 0;  // guarded by mutex_
};

}  // namespace kelvane::caches
