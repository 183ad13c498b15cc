#include "kelvane/cache_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "client/cache_clock.h"
#include "client/cache_count.h"
#include "client/cache_locks.h"
#include "client/cache_progress.h"
#include "client/cache_removal.h"
#include "client/cache_setup.h"
#include "client/shared_extents.h"

namespace kelvane::client {

struct CacheDirectory::Parts {
  CacheSetup setup;
};

namespace {

Error badRequest(std::string reason) { return {Failure::badRequest, std::move(reason)}; }

std::string systemReason(int error) { return std::generic_category().message(error); }

/// Why a directory cannot be used; empty when it can.
std::string problemIn(int directory, const struct statx& status) {
  if (!S_ISDIR(status.stx_mode)) return "not a directory";
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0)
    return "the kernel does not report mount points: expected Linux 5.8 or later";
  if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
    return "is a mount point: expected a directory in one";
  if (status.stx_uid != 0 && status.stx_uid != ::geteuid())
    return "is owned by user " + std::to_string(status.stx_uid) + ": expected root or the present user";
  return directory >= 0 ? "" : "not open";
}

bool isReadOnly(int directory) {
  struct statvfs status {};
  return ::fstatvfs(directory, &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

void stayLocked(std::array<CacheFigure, cache_stay_count>& stays) {
  stays[static_cast<std::size_t>(CacheStay::locked)].items = 1;
}

/// Held for as long as this lives, or not at all.
struct Guard {
  explicit Guard(const CacheSetup& setup) : held(locks.take(setup.root.get(), setup.rules.locks)) {
    if (setup.rules.open_files_stay) open.emplace();
  }
  OpenFiles* openFiles() { return open ? &*open : nullptr; }

  CacheLocks locks;
  bool held;
  std::optional<OpenFiles> open;
};

class Run {
 public:
  Run(const CacheSetup& setup, const CacheItemSink* sink, std::uint64_t amount, const CacheLimits& limits)
      : setup_(setup), sink_(sink), time_(limits), progress_(time_, amount) {}

  CachePurge run(int urgency, AgeCut cut) {
    try {
      go(urgency, cut);
    } catch (const std::bad_alloc&) {
      progress_.fail(ENOMEM);
    }
    return progress_.purge();
  }

 private:
  void go(int urgency, AgeCut cut) {
    if (urgency < 1 || urgency > most_urgent) return progress_.fail(EINVAL);
    if (isReadOnly(setup_.root.get())) return progress_.fail(EROFS);
    const std::int64_t now = cacheTime();
    RemovalTerms terms;
    const std::int64_t allowed = newestToGo(setup_.rules, now)[static_cast<std::size_t>(urgency) - 1];
    if (progress_.done() || allowed == no_time) return;
    terms.newest = std::min(cut.newest, allowed);
    terms.newest_leftover = now - setup_.rules.youngest.count();
    Guard guard(setup_);
    if (!guard.held) return progress_.stay(CacheStay::locked, 0, 1);
    if (!findFloor(guard, now, terms)) return;
    const std::uint64_t before = setup_.extents ? freeBytesOf(setup_.root.get()) : 0;
    removeFromCache(setup_, guard.locks, guard.openFiles(), terms, sink_, progress_);
    static_cast<void>(progress_.done());
    if (sink_ == nullptr) progress_.settle(setup_.root.get(), before);
  }
  /// False when time ran out.
  bool findFloor(Guard& guard, std::int64_t now, RemovalTerms& terms) {
    if (setup_.rules.keep_newest == 0 && setup_.rules.keep_bytes == 0) return true;
    terms.floor = countCache(setup_, guard.locks, guard.openFiles(), time_, now).floor;
    return !progress_.done();
  }

  const CacheSetup& setup_;
  const CacheItemSink* const sink_;
  const CacheTime time_;
  CacheProgress progress_;
};

}  // namespace

Result<std::unique_ptr<CacheDirectory>> CacheDirectory::open(const std::string& path,
                                                             const CacheRules& rules) {
  const FileDescriptor directory(
      ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!directory) {
    const int error = errno;
    return badRequest("cannot open \"" + path + "\": " +
                      (error == ENOTDIR || error == ELOOP ? "expected a directory that is not a link"
                                                          : systemReason(error)));
  }
  auto opened = open(directory.get(), rules);
  if (opened) return opened;
  return badRequest("cannot use \"" + path + "\": " + opened.error().reason);
}

Result<std::unique_ptr<CacheDirectory>> CacheDirectory::open(int directory, const CacheRules& rules) {
  if (std::string problem = client::problemIn(rules); !problem.empty()) return badRequest(std::move(problem));
  FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct statx status {};
  if (!own || ::statx(own.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0)
    return badRequest(systemReason(errno));
  if (std::string problem = problemIn(own.get(), status); !problem.empty())
    return badRequest(std::move(problem));
  const bool extents = canShareExtents(own.get());
  auto parts =
      std::unique_ptr<Parts>(new Parts{{rules, CachePatterns(rules.include), CachePatterns(rules.exclude),
                                        std::move(own), status.stx_uid, extents}});
  return std::unique_ptr<CacheDirectory>(new CacheDirectory(std::move(parts)));
}

CacheDirectory::CacheDirectory(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
CacheDirectory::~CacheDirectory() = default;

int CacheDirectory::descriptor() const { return parts_->setup.root.get(); }

CacheSurvey CacheDirectory::survey(const CacheLimits& limits, std::int64_t now) noexcept {
  const CacheSetup& setup = parts_->setup;
  CacheSurvey survey;
  survey.taken_at = now == 0 ? cacheTime() : now;
  survey.newest_at_urgency = newestToGo(setup.rules, survey.taken_at);
  try {
    Guard guard(setup);
    if (guard.held) {
      return countCache(setup, guard.locks, guard.openFiles(), CacheTime(limits), survey.taken_at).survey;
    }
    stayLocked(survey.stays);
    survey.complete = true;
  } catch (const std::bad_alloc&) {
    survey.error = ENOMEM;
  }
  return survey;
}

CachePurge CacheDirectory::purge(int urgency, AgeCut cut, std::uint64_t amount,
                                 const CacheLimits& limits) noexcept {
  return Run(parts_->setup, nullptr, amount, limits).run(urgency, cut);
}

CachePurge CacheDirectory::list(int urgency, AgeCut cut, std::uint64_t amount, const CacheLimits& limits,
                                const std::function<bool(const CacheItem&)>& item) noexcept {
  return Run(parts_->setup, &item, amount, limits).run(urgency, cut);
}

}  // namespace kelvane::client
