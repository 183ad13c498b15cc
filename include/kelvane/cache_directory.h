#pragma once

// A cache directory that is counted and purged by rules.
//
//   auto cache = CacheDirectory::open(path, rules);
//   if (!cache) return ...;  // cache.error().reason
//   const CacheSurvey survey = (*cache)->survey(limits);  // one walk: the figures of all four urgencies
//   const AgeCut cut = survey.cut(request.urgency, request.amount);  // the newest age that has to go
//   const CachePurge purge = (*cache)->purge(request.urgency, cut, request.amount, limits);
//
// `survey`, `purge` and `list` share their code: `purge` deletes what `list` names. The oldest go first, to
// the precision of an age histogram (buckets of 4 %): a purge deletes what is older than the cut, in the
// order in which the file system lists it.
//
// Memory is bounded to some 12 MB, whatever the directory holds. Directories more than 4,096 levels down are
// not entered. In CacheUnit::file, files with several names stay if they have more than 1,024 names or are
// not among the first 131,072 found.
//
// Safety. The walk is that of purgeFolder (kelvane/folder_purge.h): users who can write in the directory need
// not be trusted, no link is followed and no mount is entered. Every rule is checked again at the moment of
// deletion. Only regular files of the caller's effective user, or of the directory's owner, go; directories
// and symbolic links go only with their unit. A directory that contains the name .kelvane-keep stays, with
// everything below it; a unit stays whole if that name is anywhere in it.
//
// Locks. A survey and a purge hold the locks of the rules while they run. A lock file in the cache stays.
//
// Units. A directory that an interrupted purge has left (".kelvane-purge-", 16 hexadecimal digits and ".tmp",
// where units are) counts as a unit that goes before all others, at every urgency that has an age.
//
// Bytes are those that the volume gains. A file with several names counts once all of its names go. Where
// files can share blocks (btrfs, xfs), a survey counts only blocks that are not shared. A purge that deleted
// shared blocks measures what was freed; unless it is late, it writes the volume's pending changes for that.
//
// Threads. One call at a time on one object; different objects are independent. Nothing is thrown.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kelvane/cache_rules.h"
#include "kelvane/cancellation.h"
#include "kelvane/export.h"
#include "kelvane/result.h"

namespace kelvane::client {

struct CacheLimits {
  Cancellation cancellation;
  /// The moment to return, with what was done until then.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

/// Seconds since 1970: nothing newer goes.
struct AgeCut {
  std::int64_t newest = 0;
};

/// Bytes and items by age. Of fixed size and trivially copyable, so it can cross a socket as it is.
/// Histograms of the same moment can be added.
struct AgeHistogram {
  static constexpr std::size_t bucket_count = 512;  // 16 to each doubling of the age in seconds
  struct Bucket {
    std::uint64_t bytes = 0;
    std::uint64_t items = 0;
  };
  std::array<Bucket, bucket_count> buckets{};
};

struct CacheFigure {
  std::uint64_t bytes = 0;
  std::uint64_t items = 0;  // files (each name counts), or units
};

/// What a walk found. Trivially copyable. Surveys of several directories with the same rules and the same
/// `taken_at` are added with +=.
struct KELVANE_EXPORT CacheSurvey {
  std::int64_t taken_at = 0;                                    // seconds since 1970; ages count from here
  std::array<CacheFigure, urgency_count> at_urgency{};          // exact
  std::array<std::int64_t, urgency_count> newest_at_urgency{};  // the cut that each urgency allows
  AgeHistogram ages;                                            // of everything that may go at any urgency
  std::array<CacheFigure, cache_stay_count> stays{};            // by reason; bytes only where known
  bool complete = false;  // false: cancelled, too late, or not all could be read
  int error = 0;          // errno of the first failure

  /// The cut that frees `amount` bytes at this urgency, the oldest first.
  [[nodiscard]] AgeCut cut(int urgency, std::uint64_t amount) const;
  /// Bytes older than the cut, to the precision of the histogram.
  [[nodiscard]] std::uint64_t bytesUpTo(int urgency, AgeCut cut) const;
  CacheSurvey& operator+=(const CacheSurvey& other);
};

struct CachePurge {
  enum class End : std::uint8_t { amountFreed, nothingLeft, cancelled, tooLate, failed };
  End end = End::nothingLeft;
  std::uint64_t freed = 0;  // bytes that are free now
  std::uint64_t held = 0;   // bytes that become free when programs close the deleted files
  std::uint64_t items = 0;  // files, or units
  std::uint64_t files = 0;
  std::uint64_t failures = 0;
  int error = 0;  // errno of the first of them
  std::array<CacheFigure, cache_stay_count> stays{};
};

struct CacheItem {
  std::string path;  // relative to the directory; bytes as the file system has them, perhaps not UTF-8
  std::uint64_t bytes = 0;
  std::int64_t newest = 0;  // seconds since 1970
};

class KELVANE_EXPORT CacheDirectory {
 public:
  /// Fails with a reason when there is no such directory, when it is a link or a mount point, when its owner
  /// is neither this process's effective user nor root, or when the rules are invalid (no age, a malformed
  /// pattern).
  static Result<std::unique_ptr<CacheDirectory>> open(const std::string& path, const CacheRules& rules);
  /// The same for a descriptor of a directory, which is duplicated.
  static Result<std::unique_ptr<CacheDirectory>> open(int directory, const CacheRules& rules);
  ~CacheDirectory();
  CacheDirectory(const CacheDirectory&) = delete;
  CacheDirectory& operator=(const CacheDirectory&) = delete;

  /// Stays open as long as this lives.
  [[nodiscard]] int descriptor() const;

  /// Changes nothing. `now` is seconds since 1970, so that surveys can be added; 0: the present.
  [[nodiscard]] CacheSurvey survey(const CacheLimits& limits, std::int64_t now = 0) noexcept;
  /// Deletes what is at most as new as the cut and allowed at the urgency, until `amount` bytes are free.
  [[nodiscard]] CachePurge purge(int urgency, AgeCut cut, std::uint64_t amount,
                                 const CacheLimits& limits) noexcept;
  /// Passes to `item` what `purge` would delete, and deletes nothing: `freed` is what would be freed. `item`
  /// returns whether to go on.
  [[nodiscard]] CachePurge list(int urgency, AgeCut cut, std::uint64_t amount, const CacheLimits& limits,
                                const std::function<bool(const CacheItem&)>& item) noexcept;

 private:
  struct Parts;
  explicit CacheDirectory(std::unique_ptr<Parts> parts);
  const std::unique_ptr<Parts> parts_;
};

}  // namespace kelvane::client
