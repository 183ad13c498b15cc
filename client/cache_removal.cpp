#include "client/cache_removal.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <mutex>
#include <utility>

#include "client/cache_walk.h"
#include "client/linked_removal.h"
#include "client/unit_content.h"
#include "client/unit_removal.h"
#include "kelvane/folder_purge.h"

namespace kelvane::client {
namespace {

class RemovalWalk final : public CacheWalk {
 public:
  RemovalWalk(const CacheSetup& setup, const CacheLocks& locks, OpenFiles* open, const RemovalTerms& terms,
              const CacheItemSink* sink, CacheProgress& progress)
      : CacheWalk(setup, progress, locks, open, terms.newest),
        open_(open),
        terms_(terms),
        sink_(sink),
        progress_(progress) {}

  HardLinks links;

 private:
  void found(int directory, const char* name, const struct statx& status) override {
    if (status.stx_nlink > 1) return addName(directory, name, status);
    if (terms_.floor.keeps(ageOf(status))) return stay(CacheStay::floor, bytesOf(status));
    if (sink_ != nullptr) return nameFile(directory, name, status);
    const std::uint64_t bytes = bytesOf(status);
    if (!progress_.begin(bytes)) return;
    progress_.end(bytes,
                  bytes >= FolderPurge::asked_from ? deleteFileAsking(directory, name, bytes, setup().extents)
                                                   : deleteFile(directory, name, bytes),
                  1);
  }
  void nameFile(int directory, const char* name, const struct statx& status) {
    const std::uint64_t bytes = ownBytesOf(setup(), directory, name, status);
    const std::lock_guard lock(mutex_);  // otherwise two threads could wait for each other in begin
    if (!progress_.begin(bytes)) return;
    const bool on = (*sink_)({pathOf(name), bytes, ageOf(status).seconds});
    progress_.end(bytes, {true, bytes, 0, 0, 0}, 1);
    if (!on) progress_.cancel();
  }
  void addName(int directory, const char* name, const struct statx& status) {
    const std::lock_guard lock(mutex_);
    LinkedFile* const file = links.find(deviceOf(status), status.stx_ino, status.stx_nlink);
    if (file == nullptr) return stay(CacheStay::linkedElsewhere, bytesOf(status));
    if (file->seen++ == 0) file->bytes = ownBytesOf(setup(), directory, name, status);
    file->newest = ageOf(status);
  }
  void foundUnit(const CacheUnitFound& unit) override {
    if (progress_.done()) return;
    CacheLocks locks;
    if (!unit.leftover &&
        !locks.takeForUnit(setup().root.get(), unit.directory, unit.path, setup().rules.unit_locks)) {
      return stay(CacheStay::locked);
    }
    UnitCheck check{setup(), progress_, locks, open_, &links};
    UnitContent content = check.look(unit);
    const bool goes = mayGo(unit, content);
    addNames(content, goes && sink_ != nullptr);
    if (!goes) return;
    if (sink_ != nullptr) return nameUnit(unit, content);
    check.links = nullptr;
    if (const auto stays = removeUnit(check, unit, newestFor(unit), progress_)) {
      stay(*stays, content.bytes);
    } else {
      progress_.unitGone();
    }
  }
  [[nodiscard]] std::int64_t newestFor(const CacheUnitFound& unit) const {
    return unit.leftover ? terms_.newest_leftover : terms_.newest;
  }
  bool mayGo(const CacheUnitFound& unit, const UnitContent& content) {
    if (!content.complete) return false;
    if (content.error != 0) progress_.failed(content.error);
    auto stays = content.obstacle;
    if (!stays && content.newest.seconds > newestFor(unit)) stays = CacheStay::tooYoung;
    if (!stays && !unit.leftover && terms_.floor.keeps(ageOfUnit(unit, content))) stays = CacheStay::floor;
    if (stays) stay(*stays, content.bytes);
    return !stays;
  }
  /// Counts a file with the unit that has the last of its names.
  static void addNames(UnitContent& content, bool counts) {
    for (LinkedFile* const file : content.linked) {
      const std::uint32_t here = std::exchange(file->here, 0);
      if (!counts) continue;
      file->seen += here;
      if (file->closed()) content.bytes += file->bytes;
    }
  }
  void nameUnit(const CacheUnitFound& unit, const UnitContent& content) {
    const bool on = (*sink_)({unit.path, content.bytes, content.newest.seconds});
    progress_.deleted({false, content.bytes, 0, 0, 0});
    progress_.unitGone();
    if (!on) progress_.cancel();
  }

  OpenFiles* const open_;
  const RemovalTerms& terms_;
  const CacheItemSink* const sink_;
  CacheProgress& progress_;
  std::mutex mutex_;  // guards `links` and the sink
};

}  // namespace

void removeFromCache(const CacheSetup& setup, const CacheLocks& locks, OpenFiles* open,
                     const RemovalTerms& terms, const CacheItemSink* sink, CacheProgress& progress) {
  RemovalWalk walk(setup, locks, open, terms, sink, progress);
  if (!walk.run()) return progress.fail(errno);
  if (!setup.isUnits() && !progress.done())
    removeLinked(LinkedRemovalParts{setup, locks, open, terms, sink, progress}, walk.links);
}

}  // namespace kelvane::client
