#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "caches/job_run.h"
#include "caches/worker_settings.h"

namespace kelvane::caches {

/// The real implementation of Workers.
class UserWorkers final : public Workers {
 public:
  UserWorkers(std::vector<Definition> definitions, WorkerSettings settings, std::unique_ptr<Spawner> spawner);

  [[nodiscard]] HolderReport survey(const std::string& holder, const std::string& volume,
                                    const client::CacheLimits& limits) override;
  [[nodiscard]] HolderReport purge(const std::string& holder, const std::string& volume, int urgency,
                                   std::uint64_t amount, const client::CacheLimits& limits) override;
  [[nodiscard]] HolderReport list(const std::string& holder, const std::string& volume, int urgency,
                                  std::uint64_t amount, const client::CacheLimits& limits,
                                  const Item& item) override;

 private:
  /// What the survey found, and the key of each root.
  struct Found {
    HolderReport report;
    std::vector<RootKey> keys;  // as report.roots
    std::vector<User> users;    // as report.roots
    std::uint32_t definition = 0;
  };
  struct Request;
  struct Plan;

  [[nodiscard]] Found look(const std::string& holder, const std::string& volume,
                           const client::CacheLimits& limits, int percent);
  [[nodiscard]] std::vector<User> usersConcerned(Found& found, const Job& pattern,
                                                 const client::CacheLimits& limits, int percent);
  [[nodiscard]] std::vector<User> homes(Found& found) const;
  [[nodiscard]] std::vector<User> owners(Found& found, const Job& pattern, const client::CacheLimits& limits,
                                         int percent);
  void add(Found& found, std::vector<Answer> answers, const std::vector<User>& users) const;
  [[nodiscard]] static Plan planOf(const Found& found, const Request& request);
  static void settle(Found& found, const Answer& answer, std::map<RootKey, std::size_t> roots);
  void carryOut(Found& found, const Request& request, const client::CacheLimits& limits, const Item& item);
  [[nodiscard]] JobRun newRun(Stage stage, const client::CacheLimits& limits, JobRun::Item item = {});

  // All constant, or safe on any thread.
  const std::vector<Definition> definitions_;
  const WorkerSettings settings_;
  const std::unique_ptr<Spawner> spawner_;
  const bool is_root_;
  WorkerSlots slots_;
};

}  // namespace kelvane::caches
