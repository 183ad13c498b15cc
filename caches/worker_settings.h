#pragma once

// What Workers depends on. Tests set other files and inject faults; programs call Workers::start.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "caches/job.h"
#include "caches/workers.h"

namespace kelvane::caches {

struct WorkerSettings {
  std::string passwd = "/etc/passwd";
  std::string mount_table = "/proc/self/mountinfo";
  /// Called in each worker after it has become the user, before it opens anything. It reports to `socket`.
  std::function<void(const Job& job, int socket)> before_work;
};

/// As Workers::start.
[[nodiscard]] std::unique_ptr<Workers> startWorkers(std::vector<Definition> definitions,
                                                    WorkerSettings settings);

}  // namespace kelvane::caches
