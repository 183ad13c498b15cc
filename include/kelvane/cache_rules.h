#pragma once

// Which files of a cache directory may go, and when. Plain data; CacheDirectory (kelvane/cache_directory.h)
// applies it.
//
// Ages. The age of a file is the time since the newest of its three times: modification, status change,
// access. The age of a unit that is a directory is that of the newest regular file in it, or, without any,
// that of the directory. Nothing younger than `youngest`, and nothing from the future, goes at any urgency.

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

/// A lock that shows that a program is using the cache. `path` is absolute, or relative to the cache
/// directory; for a unit's lock that does not name its unit, it is relative to the unit. A missing lock file
/// is not held. One that cannot be tested, such as a link or a pipe, counts as held. Lock files are never
/// created, and deleted only with the unit that contains them. Links are not followed, except in the parent
/// directories of an absolute path.
struct CacheLock {
  enum class Kind {
    flock,   // flock(2), exclusive; held while the work lasts
    record,  // fcntl(2) F_SETLK, for writing; held where the file can be opened for writing, else tested with
             // F_GETLK
    exists,  // the file's presence is the lock
  };
  Kind kind = Kind::flock;
  std::string path;
};

/// The unit that goes or stays as a whole.
enum class CacheUnit {
  file,
  /// A directory that `include` names, with everything in it. Its `markers` are deleted first, so that
  /// programs that trust them make it again. Then it is renamed, so that no program sees half of it.
  directory,
};

struct CacheRules {
  using Seconds = std::chrono::seconds;

  /// The minimum age at urgency 1 to 4. A higher urgency allows at least what a lower one does. Nothing goes
  /// at an urgency when neither it nor a lower one has an age.
  std::array<std::optional<Seconds>, urgency_count> ages{};
  /// Whatever the rules say, nothing younger goes.
  Seconds youngest = std::chrono::hours(1);

  CacheUnit unit = CacheUnit::file;
  /// Patterns for paths relative to the directory. "*" and "?" match within a name, "**" any number of names,
  /// "[...]" as in glob(7); a leading dot needs no dot in the pattern. Bytes, not characters. Empty: every
  /// file (units of files only). At most 256 patterns, of at most 63 names and 4,096 bytes.
  std::vector<std::string> include;
  /// Takes precedence over `include`. A directory that matches is not entered; a unit that contains a match
  /// stays whole.
  std::vector<std::string> exclude;
  /// Names of files directly in a unit that are deleted before anything else in it.
  std::vector<std::string> markers;

  /// While another process holds one of these, nothing goes.
  std::vector<CacheLock> locks;
  /// While another process holds one of these, its unit stays. In a path, "{name}" stands for the unit's
  /// path, and "{stem}" and "{version}" for the parts of it before and after its last "@"; a path with one of
  /// these is relative to the cache directory.
  std::vector<CacheLock> unit_locks;
  /// Keep files that are open in a process that this one may inspect (its own user's), and their units.
  bool open_files_stay = false;

  /// Floors: the newest stay at every urgency, whatever their age. Files that the rules never let go do not
  /// count.
  std::uint64_t keep_newest = 0;  // files or units; exact up to 4,096
  std::uint64_t keep_bytes = 0;   // at least this many of the newest bytes

  /// Only directories that carry a valid CACHEDIR.TAG, and what is below them. The tag itself stays, or goes
  /// with the unit that it is in: without it the rest could never go.
  bool tagged_only = false;
};

/// Why something stays. For people; the order is that of the checks.
enum class CacheStay : std::uint8_t {
  notDirectory,  // the root is missing, a link, a mount point or not a directory
  otherVolume,   // it is not on the volume asked for
  pinned,        // .kelvane-keep is in the directory
  locked,        // another process holds a lock
  open,          // a process has it open
  excluded,      // excluded, not included, or not tagged
  tooYoung,
  floor,
  linkedElsewhere,  // a file with other names that stay
  foreign,          // not a regular file, or another user's
  unreadable,       // could not be read, entered or deleted
};
inline constexpr std::size_t cache_stay_count = 11;

/// "locked by another process" and the like, for tables and logs.
[[nodiscard]] KELVANE_EXPORT const char* describe(CacheStay reason);

}  // namespace kelvane::client
