#pragma once

// Surveys and purges one holder for all users whose homes it concerns, each in a process of that user.
//
// The spawner is a child that is forked while the program has one thread; it forks a worker for each job. A
// worker becomes the user for good before it opens any of that user's files: groups, group, user, no new
// privileges, no capabilities. It checks that it cannot regain its rights, works, writes its report and ends.
// A worker that has not reported at its deadline is killed, and delays its own user only.

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "kelvane/cache_directory.h"

namespace kelvane::caches {

/// The result for one root of a holder.
struct RootReport {
  std::string path;    // as resolved; bytes, perhaps not UTF-8
  std::string volume;  // empty when it is on none
  uid_t user = 0;
  client::CacheSurvey survey;  // of a survey, or of the survey before a purge or list
  client::CachePurge purge;    // of a purge or a list
  std::string reason;          // why this root gives nothing; empty: see the figures
};

struct HolderReport {
  std::vector<RootReport> roots;
  std::string reason;    // why the holder gives nothing: disabled, no such directory
  bool complete = true;  // false: a worker was late, ended early or was cancelled
  [[nodiscard]] client::CacheFigure atUrgency(int urgency) const;
  [[nodiscard]] std::uint64_t freed() const;
};

class Workers {
 public:
  /// A file or unit that would go.
  using Item = std::function<bool(const RootReport& root, const client::CacheItem& item)>;

  /// Forks the spawner: to be called while the process has one thread. Null, with errno, when that fails.
  /// Without root's rights the work is done for the calling user only.
  static std::unique_ptr<Workers> start(std::vector<Definition> definitions);
  virtual ~Workers() = default;

  // Any thread, several at a time. `volume` empty: all volumes.
  [[nodiscard]] virtual HolderReport survey(const std::string& holder, const std::string& volume,
                                            const client::CacheLimits& limits) = 0;
  [[nodiscard]] virtual HolderReport purge(const std::string& holder, const std::string& volume, int urgency,
                                           std::uint64_t amount, const client::CacheLimits& limits) = 0;
  [[nodiscard]] virtual HolderReport list(const std::string& holder, const std::string& volume, int urgency,
                                          std::uint64_t amount, const client::CacheLimits& limits,
                                          const Item& item) = 0;
};

}  // namespace kelvane::caches
