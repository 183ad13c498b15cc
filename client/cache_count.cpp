#include "client/cache_count.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <mutex>

#include "client/age_histogram.h"
#include "client/cache_walk.h"
#include "client/unit_content.h"
#include "client/unit_removal.h"

namespace kelvane::client {
namespace {

class Count final : public CacheAccount {
 public:
  Count(const CacheSetup& setup, const CacheTime& time, std::int64_t now)
      : time_(time), newest_(newestToGo(setup.rules, now)), kept_(setup.rules) {
    survey_.taken_at = now;
    survey_.newest_at_urgency = newest_;
    survey_.complete = true;
  }

  [[nodiscard]] bool done() override {
    if (!time_.isCancelled() && !time_.isLate()) return false;
    const std::lock_guard lock(mutex_);
    survey_.complete = false;
    return true;
  }
  void stay(CacheStay reason, std::uint64_t bytes, std::uint64_t items) override {
    const std::lock_guard lock(mutex_);
    CacheFigure& figure = survey_.stays[static_cast<std::size_t>(reason)];
    figure.bytes += bytes;
    figure.items += items;
  }
  void failed(int error) override {
    const std::lock_guard lock(mutex_);
    survey_.complete = false;
    if (survey_.error == 0) survey_.error = error;
  }
  void add(const CacheAge& age, std::uint64_t bytes, std::uint64_t items) {
    const std::lock_guard lock(mutex_);
    kept_.add(age, survey_.taken_at, bytes, items);
    addFigures(age.seconds, bytes, items);
  }
  void addYoung(const CacheAge& age, std::uint64_t bytes) {
    if (!kept_.isAsked()) return;
    const std::lock_guard lock(mutex_);
    kept_.add(age, survey_.taken_at, bytes, 1);
  }
  /// Floors do not apply, because part of it is gone already.
  void addLeftover(std::uint64_t bytes) {
    leftovers_.bytes += bytes;
    ++leftovers_.items;
  }
  void addName(const struct statx& status, std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    LinkedFile* const file = links.find(deviceOf(status), status.stx_ino, status.stx_nlink);
    if (file == nullptr) {
      CacheFigure& figure = survey_.stays[static_cast<std::size_t>(CacheStay::linkedElsewhere)];
      figure.bytes += bytes;
      ++figure.items;
      return;
    }
    if (file->seen++ == 0) file->bytes = bytes;
    file->newest = ageOf(status);
  }
  CacheCount finish(bool units) {
    for (const LinkedFile& file : links.files()) addLinked(file, units);
    const CacheFloor floor = kept_.apply(survey_);
    if (leftovers_.items > 0) addFigures(no_time, leftovers_.bytes, leftovers_.items);
    return {survey_, floor};
  }

  HardLinks links;

 private:
  void addFigures(std::int64_t seconds, std::uint64_t bytes, std::uint64_t items) {
    for (std::size_t i = 0; i < urgency_count; ++i) {
      if (seconds > newest_[i] || newest_[i] == no_time) continue;
      survey_.at_urgency[i].bytes += bytes;
      survey_.at_urgency[i].items += items;
    }
    const bool oldest = seconds == no_time;
    auto& bucket =
        survey_.ages.buckets[oldest ? AgeHistogram::bucket_count - 1 : ageBucket(survey_.taken_at - seconds)];
    bucket.bytes += bytes;
    bucket.items += items;
  }
  void addLinked(const LinkedFile& file, bool units) {
    const bool young = file.newest.seconds > newest_.back();
    if (file.seen == 0) return;
    if (file.closed() && units) {
      addFigures(file.newest.seconds, file.bytes, 0);
    } else if (file.closed()) {
      kept_.add(file.newest, survey_.taken_at, file.bytes, file.names);
      if (!young) addFigures(file.newest.seconds, file.bytes, file.names);
    } else if (!young) {
      stay(CacheStay::linkedElsewhere, file.bytes, units ? 0 : file.seen);
    }
  }

  const CacheTime& time_;
  const std::array<std::int64_t, urgency_count> newest_;
  std::mutex mutex_;  // guards all below while files are visited
  CacheSurvey survey_;
  NewestKept kept_;
  CacheFigure leftovers_;
};

class CountWalk final : public CacheWalk {
 public:
  CountWalk(const CacheSetup& setup, Count& count, const CacheLocks& locks, OpenFiles* open, std::int64_t now)
      : CacheWalk(setup, count, locks, open, newestToGo(setup.rules, now).back()),
        count_(count),
        open_(open),
        newest_(newestToGo(setup.rules, now).back()),
        newest_leftover_(now - setup.rules.youngest.count()) {}

 private:
  void found(int directory, const char* name, const struct statx& status) override {
    const std::uint64_t bytes = ownBytesOf(setup(), directory, name, status);
    if (status.stx_nlink == 1) {
      count_.add(ageOf(status), bytes, 1);
    } else {
      count_.addName(status, bytes);
    }
  }
  void foundYoung(const struct statx& status) override {
    if (status.stx_nlink == 1) {
      count_.addYoung(ageOf(status), bytesOf(status));
    } else {
      count_.addName(status, bytesOf(status));
    }
  }
  void foundUnit(const CacheUnitFound& unit) override {
    CacheLocks locks;
    if (!unit.leftover &&
        !locks.takeForUnit(setup().root.get(), unit.directory, unit.path, setup().rules.unit_locks)) {
      return stay(CacheStay::locked);
    }
    UnitContent content = UnitCheck{setup(), count_, locks, open_, &count_.links}.look(unit);
    const bool young = content.newest.seconds > (unit.leftover ? newest_leftover_ : newest_);
    const bool goes = content.complete && !content.obstacle && !young;
    addNames(content, goes);
    if (!content.complete) return;
    if (content.error != 0) count_.failed(content.error);
    if (content.obstacle) return stay(*content.obstacle, content.bytes);
    if (young) {
      stay(CacheStay::tooYoung, content.bytes);
      if (!unit.leftover) count_.addYoung(ageOfUnit(unit, content), content.bytes);
    } else if (unit.leftover) {
      count_.addLeftover(content.bytes);
    } else {
      count_.add(ageOfUnit(unit, content), content.bytes, 1);
    }
  }
  /// Files with all names in this unit count with it.
  static void addNames(UnitContent& content, bool goes) {
    for (LinkedFile* const file : content.linked) {
      const std::uint32_t here = std::exchange(file->here, 0);
      if (!goes) continue;
      file->newest = std::max(file->newest, content.newest);
      file->seen += here;
      if (here == file->names) content.bytes += std::exchange(file->bytes, 0);
    }
  }

  Count& count_;
  OpenFiles* const open_;
  const std::int64_t newest_;
  const std::int64_t newest_leftover_;
};

}  // namespace

CacheCount countCache(const CacheSetup& setup, const CacheLocks& locks, OpenFiles* open,
                      const CacheTime& time, std::int64_t now) {
  Count count(setup, time, now);
  CountWalk walk(setup, count, locks, open, now);
  if (!walk.run()) walk.failed(errno);
  return count.finish(setup.isUnits());
}

}  // namespace kelvane::client
