#pragma once

// The process that runs one job as one user.

#include <vector>

#include "caches/definition.h"
#include "caches/job.h"
#include "caches/worker_settings.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// Runs in a child that has just been forked, and never returns. It reports to `socket`; when the other end
/// is shut down for writing, or closed, the work is cancelled.
[[noreturn]] void runWorker(const std::vector<Definition>& definitions, const WorkerSettings& settings,
                            const Job& job, FileDescriptor socket, pid_t spawner) noexcept;

}  // namespace kelvane::caches
