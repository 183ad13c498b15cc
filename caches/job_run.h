#pragma once

// Runs jobs, each in a worker of its own, and waits for their reports until a deadline.

#include <cstdint>
#include <vector>

#include "caches/report.h"
#include "caches/spawner.h"
#include "caches/worker_slots.h"
#include "kelvane/cache_directory.h"

namespace kelvane::caches {

/// When the run and its workers must end.
struct Stage {
  std::chrono::steady_clock::time_point end;
  std::chrono::steady_clock::time_point work_end;  // earlier, so that reports arrive in time
};

/// The stage that takes `percent` of the time until the deadline. A stage without a deadline ends as well.
[[nodiscard]] Stage stageUntil(std::chrono::steady_clock::time_point deadline, int percent);

/// Used once, on one thread.
class JobRun {
 public:
  /// Takes the items of lists. False: no more are wanted, and the run ends.
  using Item = std::function<bool(std::size_t job, const RootKey& root, const client::CacheItem& item)>;

  JobRun(Spawner& spawner, WorkerSlots& slots, Stage stage, client::Cancellation cancellation,
         ReportReader::MostBytes most_bytes, Item item = {});

  /// An answer for each job, in the same order. A late answer holds what was reported until the deadline.
  [[nodiscard]] std::vector<Answer> run(std::vector<Job> jobs);

 private:
  struct Running {
    std::size_t job = 0;
    Spawner::Worker worker;
    ReportReader reader;
  };

  void startSome();
  bool start(std::size_t job);
  void waitForSome();
  void receive(Running& running);
  void finish(Running& running);
  void giveUp(const char* reason);
  void abandon(Running& running, const char* reason);
  void cancelWhenAsked();

  Spawner& spawner_;
  WorkerSlots& slots_;
  WorkerSlots::Call call_;
  Stage stage_;
  const client::Cancellation cancellation_;
  const ReportReader::MostBytes most_bytes_;
  const Item item_;
  bool cancelled_ = false;
  bool sated_ = false;
  std::vector<Job> jobs_;
  std::vector<Answer> answers_;
  std::vector<std::size_t> waiting_;  // the next one last
  std::vector<std::unique_ptr<Running>> running_;
  std::vector<char> buffer_;
};

}  // namespace kelvane::caches
