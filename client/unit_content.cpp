#include "client/unit_content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <mutex>

namespace kelvane::client {
namespace {

/// Walks a unit until it finds a reason why it must stay.
class ContentWalk final : public FolderWalk::Visitor {
 public:
  ContentWalk(const UnitCheck& check, const CacheUnitFound& unit)
      : check_(check), unit_(unit), setup_(check.setup), exclude_(setup_.exclude, unit.exclude) {}

  UnitContent run() {
    addPlace(unit_.directory);
    const auto threads = check_.open == nullptr ? FolderWalk::Threads::two : FolderWalk::Threads::one;
    if (!FolderWalk(*this, threads).run(unit_.directory)) failed(errno);
    struct statx status {};
    if (!content_.files && ::statx(unit_.directory, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0) {
      status.stx_atime = {};  // this walk has changed it
      content_.newest = ageOf(status);
    }
    return std::move(content_);
  }

  [[nodiscard]] bool done() override {
    const bool stopped = check_.account.done();
    const std::lock_guard lock(mutex_);
    if (stopped) content_.complete = false;
    return stopped || content_.obstacle;
  }
  void file(int directory, const char* name, const struct statx& status) override {
    if (setup_.exclude.match(exclude_.here(), name)) return keep(CacheStay::excluded);
    if (isOpen(status)) return keep(CacheStay::open);
    CachePlace writable;
    writable.writable = true;
    if (const auto obstacle = obstacleTo(setup_, writable, status)) return keep(*obstacle);
    const std::uint64_t bytes = ownBytesOf(setup_, directory, name, status);
    const std::lock_guard lock(mutex_);
    content_.files = true;
    content_.newest = std::max(content_.newest, ageOf(status));
    if (status.stx_nlink == 1) {
      content_.bytes += bytes;
    } else if (check_.links != nullptr) {
      countName(status, bytes);
    }
  }
  /// Links go with their unit. They are never followed, so their targets do not matter.
  void other(int directory, const char* name) override {
    struct stat status {};
    if (setup_.exclude.match(exclude_.here(), name)) return keep(CacheStay::excluded);
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (!S_ISLNK(status.st_mode) || !setup_.trusts(status.st_uid)) return keep(CacheStay::foreign);
    addBytes(bytesOfEntry(status));
  }
  [[nodiscard]] bool wants(const std::string& name) override {
    if (setup_.exclude.match(exclude_.here(), name.c_str())) keep(CacheStay::excluded);
    if (depth_ >= CacheWalk::deepest) failed(ENAMETOOLONG);
    return !content_.obstacle;
  }
  [[nodiscard]] bool entered(int /*parent*/, int directory, const std::string& name) override {
    addPlace(directory);
    exclude_.enter(name.c_str());
    ++depth_;
    return true;
  }
  void left(int /*parent*/, const std::string& /*name*/) override {
    exclude_.leave();
    --depth_;
  }
  void notEntered(const std::string& name, int error) override {
    if (error == EXDEV) return keep(CacheStay::foreign);
    Visitor::notEntered(name, error);
  }
  void failed(int error) override {
    keep(CacheStay::unreadable);
    const std::lock_guard lock(mutex_);
    content_.error = error;
  }

 private:
  /// A read-only directory of one's own can be made writable.
  void addPlace(int directory) {
    const CachePlace place = placeOf(directory, false);
    if (place.pinned) return keep(CacheStay::pinned);
    if (!setup_.trusts(place.owner)) return keep(CacheStay::foreign);
    if (!place.writable && !place.own) return keep(CacheStay::unreadable);
    addBytes(place.bytes);
  }
  void addBytes(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    content_.bytes += bytes;
  }
  void keep(CacheStay reason) {
    const std::lock_guard lock(mutex_);
    if (!content_.obstacle) content_.obstacle = reason;
  }
  [[nodiscard]] bool isOpen(const struct statx& status) const {
    return check_.open != nullptr && !check_.locks.have(deviceOf(status), status.stx_ino) &&
           check_.open->have(deviceOf(status), status.stx_ino);
  }
  void countName(const struct statx& status, std::uint64_t bytes) {
    LinkedFile* const file = check_.links->find(deviceOf(status), status.stx_ino, status.stx_nlink);
    if (file == nullptr) return;
    if (file->seen == 0 && file->here == 0) file->bytes = bytes;
    if (file->here++ == 0) content_.linked.push_back(file);
  }

  const UnitCheck& check_;
  const CacheUnitFound& unit_;
  const CacheSetup& setup_;
  PatternPath exclude_;
  std::size_t depth_ = 0;
  std::mutex mutex_;  // guards `content_` while files are visited
  UnitContent content_;
};

}  // namespace

std::uint64_t bytesOfEntry(const struct stat& status) {
  constexpr std::uint64_t block = 512;
  // A symbolic link may have further names, which keep its bytes; a directory's are its "." and "..".
  return S_ISDIR(status.st_mode) || status.st_nlink == 1
             ? static_cast<std::uint64_t>(status.st_blocks) * block
             : 0;
}

UnitContent UnitCheck::look(const CacheUnitFound& unit) const {
  if (open != nullptr) open->refreshWhenOld();
  struct statx status {};
  UnitContent none;
  if (::statx(unit.directory, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0) {
    none.error = errno;
    none.obstacle = CacheStay::unreadable;
    return none;
  }
  none.obstacle = obstacleTo(setup, unit.among, status);
  return none.obstacle ? none : ContentWalk(*this, unit).run();
}

CacheAge ageOfUnit(const CacheUnitFound& unit, const UnitContent& content) {
  struct stat status {};
  CacheAge age = content.newest;
  age.number = ::fstat(unit.directory, &status) == 0 ? status.st_ino : 0;
  return age;
}

}  // namespace kelvane::client
