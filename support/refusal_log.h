#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace kelvane {

/// Logs, at level 3, that a user's connection was refused because the user has as many as it may. At most one
/// line in ten seconds for each user, so that a peer which goes on trying does not fill the log. Thread-safe.
class RefusalLog {
 public:
  /// So many users have a line in ten seconds; about further ones nothing is logged.
  static constexpr std::size_t most_users = 64;

  /// `limit`: how many connections that user may have.
  void refused(uid_t user, std::uint64_t limit);

 private:
  bool takeLine(uid_t user);

  std::mutex mutex_;
  std::map<uid_t, std::uint64_t> last_lines_;  // guarded by mutex_; when each user's was, by Clock::now
};

}  // namespace kelvane
