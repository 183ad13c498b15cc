#include "client/unit_removal.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "kelvane/folder_purge.h"

namespace kelvane::client {
namespace {

constexpr std::string_view leftover_begin = ".kelvane-purge-";
constexpr std::string_view leftover_end = ".tmp";
constexpr std::size_t leftover_digits = 16;

/// Gives the owner all rights, without which its entries cannot be deleted.
void makeWritable(int directory) {
  struct stat status {};
  if (::fstat(directory, &status) != 0 || status.st_uid != ::geteuid()) return;
  if ((status.st_mode & S_IRWXU) != S_IRWXU) ::fchmod(directory, (status.st_mode & 07777) | S_IRWXU);
}

bool isSame(int directory, const char* name, const struct stat& as) {
  struct stat found {};
  return ::fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_ino == as.st_ino &&
         found.st_dev == as.st_dev;
}

std::string newLeftoverName() {
  std::uint64_t number = 0;
  if (::getrandom(&number, sizeof number, 0) != sizeof number) return {};
  std::array<char, leftover_digits + 1> digits{};
  std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(number));
  return std::string(leftover_begin) + digits.data() + std::string(leftover_end);
}

/// A directory or a symbolic link.
void deleteEntry(UnitDeletions& deletions, int directory, const char* name, int flags, std::uint64_t bytes) {
  if (::unlinkat(directory, name, flags) == 0) {
    deletions.deleted({false, bytes, 0, 0, 0});
  } else if (errno != ENOENT) {
    deletions.failed(errno);
  }
}

/// Deletes the content of a renamed directory.
class Emptying final : public FolderWalk::Visitor {
 public:
  Emptying(const CacheSetup& setup, UnitDeletions& deletions) : setup_(setup), deletions_(deletions) {}

  [[nodiscard]] bool done() override { return deletions_.stopped(); }
  void file(int directory, const char* name, const struct statx& status) override {
    if (!setup_.trusts(status.stx_uid)) return;
    if (status.stx_nlink == 1) {
      const std::uint64_t bytes = bytesOf(status);
      return deletions_.deleted(bytes >= FolderPurge::asked_from
                                    ? deleteFileAsking(directory, name, bytes, setup_.extents)
                                    : deleteFile(directory, name, bytes));
    }
    // Two threads that delete names of one file at the same time could each take the other's name for the
    // last.
    const std::lock_guard lock(linked_);
    deletions_.deleted(deleteFileAsking(directory, name, 0, setup_.extents));
  }
  void other(int directory, const char* name) override {
    struct stat status {};
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(status.st_mode)) return;
    deleteEntry(deletions_, directory, name, 0, bytesOfEntry(status));
  }
  [[nodiscard]] bool entered(int /*parent*/, int directory, const std::string& /*name*/) override {
    struct stat status {};
    bytes_.push_back(::fstat(directory, &status) == 0 ? bytesOfEntry(status) : 0);
    makeWritable(directory);
    return true;
  }
  void left(int parent, const std::string& name) override {
    const std::uint64_t bytes = bytes_.empty() ? 0 : bytes_.back();
    if (!bytes_.empty()) bytes_.pop_back();
    if (parent >= 0 && !done()) deleteEntry(deletions_, parent, name.c_str(), AT_REMOVEDIR, bytes);
  }
  void failed(int error) override { deletions_.failed(error); }

 private:
  const CacheSetup& setup_;
  UnitDeletions& deletions_;
  std::vector<std::uint64_t> bytes_;  // of the directories that the walk is in
  std::mutex linked_;
};

class Removal {
 public:
  Removal(const UnitCheck& check, const CacheUnitFound& unit, std::int64_t newest, UnitDeletions& deletions)
      : check_(check), unit_(unit), newest_(newest), deletions_(deletions), name_(unit.name) {}

  std::optional<CacheStay> run() {
    if (::fstat(unit_.directory, &self_) != 0) return failed();
    if (!isSame(unit_.parent, name_.c_str(), self_)) return CacheStay::unreadable;
    if (!unit_.leftover) {
      if (const auto stays = takeName()) {
        ::fchmod(unit_.directory, self_.st_mode & 07777);
        return stays;
      }
    }
    makeWritable(unit_.directory);
    Emptying emptying(check_.setup, deletions_);
    if (!FolderWalk(emptying, FolderWalk::Threads::two).run(unit_.directory)) deletions_.failed(errno);
    if (!deletions_.stopped() && isSame(unit_.parent, name_.c_str(), self_))
      deleteEntry(deletions_, unit_.parent, name_.c_str(), AT_REMOVEDIR, bytesOfEntry(self_));
    return std::nullopt;
  }

 private:
  std::optional<CacheStay> failed() {
    deletions_.failed(errno);
    return CacheStay::unreadable;
  }

  std::optional<CacheStay> takeName() {
    if (!deleteMarkers()) return failed();
    name_ = newLeftoverName();
    if (name_.empty() || !rename(unit_.name, name_)) return failed();
    auto stays = isSame(unit_.parent, name_.c_str(), self_) ? whyItStays() : CacheStay::foreign;
    if (stays && !rename(name_, unit_.name)) deletions_.failed(errno);
    return stays;
  }
  [[nodiscard]] bool rename(const std::string& from, const std::string& to) const {
    return ::renameat2(unit_.parent, from.c_str(), unit_.parent, to.c_str(), RENAME_NOREPLACE) == 0;
  }
  /// False, with errno, when one cannot be deleted.
  bool deleteMarkers() {
    if (!check_.setup.rules.markers.empty()) makeWritable(unit_.directory);
    for (const std::string& marker : check_.setup.rules.markers) {
      struct stat status {};
      if (::fstatat(unit_.directory, marker.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) return false;
      } else if (S_ISREG(status.st_mode)) {
        const FileDeletion gone = deleteFileAsking(unit_.directory, marker.c_str(), 0);
        deletions_.deleted(gone);
        errno = gone.error;
        if (gone.error != 0) return false;
      }
    }
    return true;
  }
  [[nodiscard]] std::optional<CacheStay> whyItStays() const {
    if (check_.open != nullptr) check_.open->refresh();
    const UnitContent content = check_.look(unit_);
    if (content.obstacle) return content.obstacle;
    if (!content.complete) return CacheStay::tooYoung;
    if (content.files && content.newest.seconds > newest_) return CacheStay::tooYoung;
    return std::nullopt;
  }

  const UnitCheck& check_;
  const CacheUnitFound& unit_;
  const std::int64_t newest_;
  UnitDeletions& deletions_;
  std::string name_;  // current
  struct stat self_ {};
};

}  // namespace

bool isLeftoverName(std::string_view name) {
  if (name.size() != leftover_begin.size() + leftover_digits + leftover_end.size()) return false;
  const std::string_view digits = name.substr(leftover_begin.size(), leftover_digits);
  return name.starts_with(leftover_begin) && name.ends_with(leftover_end) &&
         digits.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<CacheStay> removeUnit(const UnitCheck& check, const CacheUnitFound& unit, std::int64_t newest,
                                    UnitDeletions& deletions) {
  return Removal(check, unit, newest, deletions).run();
}

}  // namespace kelvane::client
