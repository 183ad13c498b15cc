#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace kelvane {

/// Logs, at level 3, that a connection was refused because its user is at the limit on connections. At most
/// one line in ten seconds for each user, so that a peer that keeps trying does not fill the log.
/// Thread-safe.
class RefusalLog {
 public:
  /// At most this many users are logged in ten seconds.
  static constexpr std::size_t most_users = 64;

  /// `limit`: how many connections that user may have.
  void refused(uid_t user, std::uint64_t limit);

 private:
  bool takeLine(uid_t user);

  std::mutex mutex_;
  std::map<uid_t, std::uint64_t> last_lines_;  // time of the last line (Clock::now); guarded by mutex_
};

}  // namespace kelvane
