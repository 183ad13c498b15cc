#pragma once

// What of a cache directory may go, and when. Plain data; CacheDirectory (kelvane/cache_directory.h) carries
// it out.
//
// Ages. The age of a file is the time since the newest of its three times: modification, status change,
// access. The age of a unit that is a directory is that of the newest regular file in it; without any, of the
// directory. Nothing younger than `youngest`, and nothing from the future, goes at any urgency.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/export.h"

namespace kelvane::client {

inline constexpr int most_urgent = 4;
inline constexpr std::size_t urgency_count = 4;

/// A lock that says that a program is using the cache. It is looked for where `path` says: relative to the
/// cache directory, or, for a unit's lock that does not name its unit, to the unit; an absolute path stands
/// for itself. A lock file that is not there is not held; one that cannot be tested, a link or a pipe for
/// example, is. No lock file is ever created, none is deleted but with the unit that it is in, and no link is
/// followed, except on the way of an absolute path.
struct CacheLock {
  enum class Kind {
    flock,   // flock(2), exclusive; held for as long as the work lasts
    record,  // fcntl(2) F_SETLK, for writing; held where the file can be opened for writing, else tested with
             // F_GETLK
    exists,  // the file's presence is the lock
  };
  Kind kind = Kind::flock;
  std::string path;
};

/// What goes or stays as a whole.
enum class CacheUnit {
  file,
  /// A directory that `include` names, with all that is in it. It is renamed beside first, so that nobody
  /// sees half of it; before that its `markers` are deleted, so that whoever trusts them makes it again.
  directory,
};

struct CacheRules {
  using Seconds = std::chrono::seconds;

  /// For urgency 1 to 4: what is at least this old may go. Nothing: nothing goes at that urgency. A higher
  /// urgency allows at least what a lower one does.
  std::array<std::optional<Seconds>, urgency_count> ages{};
  /// Whatever the rules say, nothing younger goes.
  Seconds youngest = std::chrono::hours(1);

  CacheUnit unit = CacheUnit::file;
  /// Patterns for paths relative to the directory. "*" and "?" match within a name, "**" any number of names,
  /// "[...]" as in glob(7); a leading dot needs no dot in the pattern. Bytes, not characters. Empty: every
  /// file (units of files only). At most 256 patterns, of at most 63 names and 4,096 bytes.
  std::vector<std::string> include;
  /// Wins over `include`. A directory that matches is not entered; a unit that holds a match is left whole.
  std::vector<std::string> exclude;
  /// Names directly in a unit that are deleted before anything else of it.
  std::vector<std::string> markers;

  /// While one of these is held by somebody else, nothing goes.
  std::vector<CacheLock> locks;
  /// While one of these is held, its unit stays. In a path, "{name}" stands for the unit's path, and "{stem}"
  /// and "{version}" for the parts of it before and after its last "@"; a path with one of these is relative
  /// to the cache directory.
  std::vector<CacheLock> unit_locks;
  /// Leave a file or unit of which a process that this one may inspect (its own user's) has a file open.
  bool open_files_stay = false;

  /// Floors: the newest that stay at every urgency, whatever their age. Both count what the rules could ever
  /// let go.
  std::uint64_t keep_newest = 0;  // files or units; exact up to 4,096
  std::uint64_t keep_bytes = 0;   // at least so many of the newest bytes

  /// Only directories that carry a valid CACHEDIR.TAG, and what is below them. The tag itself stays, or goes
  /// with the unit that it is in: without it the rest could never go.
  bool tagged_only = false;
};

/// Why something stays. For people; the order is that of the checks.
enum class CacheStay : std::uint8_t {
  notDirectory,  // the root is not there, is a link, a mount point or not a directory
  otherVolume,   // it is not on the volume asked for
  pinned,        // .kelvane-keep is in the directory
  locked,        // a lock is held by somebody else
  open,          // a process has it open
  excluded,      // a pattern, or no pattern, or not tagged
  tooYoung,
  floor,
  linkedElsewhere,  // a file with further names that stay
  foreign,          // not a regular file, or another user's
  unreadable,       // could not be read, entered or deleted
};
inline constexpr std::size_t cache_stay_count = 11;

/// "locked by another process" and the like, for tables and logs.
[[nodiscard]] KELVANE_EXPORT const char* describe(CacheStay reason);

}  // namespace kelvane::client
