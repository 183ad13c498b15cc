#include "support/refusal_log.h"

#include "platform/dispatch/clock.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr std::uint64_t interval = 10'000'000'000;  // nanoseconds

}  // namespace

void RefusalLog::refused(uid_t user, std::uint64_t limit) {
  if (!takeLine(user)) return;
  KVLog(3, "%s refused a connection of user %u: it has %llu open, the most allowed", "resume", user, limit);
}

/// Whether a line about the user may be written now. If so, it counts as written.
bool RefusalLog::takeLine(uid_t user) {
  const std::lock_guard lock(mutex_);
  const std::uint64_t now = Clock::current().now();
  const auto isOld = [now](const auto& entry) { return now - entry.second >= interval; };
  const auto last = last_lines_.find(user);
  if (last != last_lines_.end() && !isOld(*last)) return false;
  std::erase_if(last_lines_, isOld);
  return last_lines_.size() < most_users && last_lines_.emplace(user, now).second;
}

}  // namespace kelvane
