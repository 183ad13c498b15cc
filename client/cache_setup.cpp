#include "client/cache_setup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <tuple>

#include "client/shared_extents.h"

namespace kelvane::client {
namespace {

constexpr std::uint64_t block = 512;
constexpr std::uint64_t extents_matter_from = std::uint64_t{64} << 10;
constexpr std::size_t most_markers = 64;
constexpr std::size_t most_locks = 64;

CacheAge momentOf(const statx_timestamp& time) { return {time.tv_sec, time.tv_nsec, 0}; }

std::string problemInAges(const CacheRules& rules) {
  bool any = false;
  for (const auto& age : rules.ages) {
    if (age && age->count() < 0) return "negative age: expected 0 seconds or more";
    any = any || age.has_value();
  }
  if (rules.youngest.count() < 0) return "negative youngest age: expected 0 seconds or more";
  return any ? "" : "no age: expected one for at least one urgency";
}

std::string problemInPatterns(const std::vector<std::string>& patterns) {
  if (patterns.size() > CachePatterns::most_patterns) return "more than 256 patterns";
  for (const std::string& pattern : patterns) {
    const std::string problem = CachePatterns::problemIn(pattern);
    if (!problem.empty())
      return std::string("invalid pattern \"").append(pattern).append("\": ").append(problem);
  }
  return "";
}

std::string problemInMarkers(const std::vector<std::string>& markers) {
  if (markers.size() > most_markers) return "more than 64 markers";
  for (const std::string& marker : markers) {
    if (marker.empty() || marker == "." || marker == ".." || marker.size() > 255 ||
        marker.find_first_of(std::string("/\0", 2)) != std::string::npos) {
      return "invalid marker \"" + marker + "\": expected a file name such as .cargo-ok";
    }
  }
  return "";
}

std::string problemInLocks(const std::vector<CacheLock>& locks) {
  if (locks.size() > most_locks) return "more than 64 locks";
  for (const CacheLock& lock : locks) {
    if (lock.path.empty() || lock.path.find('\0') != std::string::npos)
      return "invalid lock path \"" + lock.path + "\": expected a path such as .package-cache";
  }
  return "";
}

}  // namespace

bool CacheSetup::trusts(uid_t user) const { return user == owner || user == ::geteuid(); }

std::string problemIn(const CacheRules& rules) {
  const bool units = rules.unit == CacheUnit::directory;
  if (units && rules.include.empty()) return "no include pattern: units of directories need at least one";
  if (!units && !rules.markers.empty()) return "markers without units of directories";
  if (!units && !rules.unit_locks.empty()) return "unit locks without units of directories";
  for (const std::string& problem :
       {problemInAges(rules), problemInPatterns(rules.include), problemInPatterns(rules.exclude),
        problemInMarkers(rules.markers), problemInLocks(rules.locks), problemInLocks(rules.unit_locks)}) {
    if (!problem.empty()) return problem;
  }
  return "";
}

std::array<std::int64_t, urgency_count> newestToGo(const CacheRules& rules, std::int64_t now) {
  std::array<std::int64_t, urgency_count> newest{};
  std::int64_t before = no_time;
  for (std::size_t i = 0; i < urgency_count; ++i) {
    if (rules.ages[i]) before = std::max(before, now - std::max(*rules.ages[i], rules.youngest).count());
    newest[i] = before;
  }
  return newest;
}

CacheAge ageOf(const struct statx& status) {
  CacheAge age =
      std::max({momentOf(status.stx_mtime), momentOf(status.stx_ctime), momentOf(status.stx_atime)});
  age.number = status.stx_ino;
  return age;
}

std::uint64_t bytesOf(const struct statx& status) { return status.stx_blocks * block; }

dev_t deviceOf(const struct statx& status) {
  return gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor);
}

std::uint64_t ownBytesOf(const CacheSetup& setup, int directory, const char* name,
                         const struct statx& status) {
  const std::uint64_t bytes = bytesOf(status);
  if (!setup.extents || bytes < extents_matter_from) return bytes;
  const FileDescriptor file(
      ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return file ? bytes - std::min(bytes, sharedBytes(file.get())) : bytes;
}

}  // namespace kelvane::client
