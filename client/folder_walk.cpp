#include "client/folder_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "platform/dispatch/thread.h"

namespace kelvane::client {
namespace {

constexpr std::size_t entries_bytes = std::size_t{256} << 10;
constexpr std::size_t open_levels = 32;
constexpr std::size_t few_bytes = 2048;  // of entries, while few names can be kept
constexpr std::size_t files_worth_a_thread = 32;
constexpr std::size_t files_in_one_go = 8;

bool isDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

bool isFailure(int error) { return error != ENOENT && error != ELOOP && error != ENOTDIR && error != EXDEV; }

std::size_t sizeOf(const std::string& name) { return sizeof(std::string) + name.size() + 1; }

}  // namespace

FileDescriptor openBelow(int folder, const char* path) {
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how)));
}

void FolderWalk::Visitor::notEntered(const std::string& /*name*/, int error) {
  if (isFailure(error)) failed(error);
}

FolderWalk::FolderWalk(Visitor& visitor, Threads threads, bool looks)
    : visitor_(visitor),
      threads_(threads),
      looks_(looks),
      entries_(std::make_unique_for_overwrite<char[]>(entries_bytes)) {}

bool FolderWalk::run(int folder) {
  FileDescriptor own = openBelow(folder, ".");
  if (!own || !enter(std::move(own), "")) return false;
  while (!levels_.empty() && !visitor_.done()) {
    Level& level = levels_.back();
    if (level.below.empty() && level.more && !listMore(level)) visitor_.failed(errno);
    if (level.below.empty()) {
      leave();
    } else {
      enterNext();
    }
  }
  return true;
}

/// Visits the files and notes the folders. False, with errno, when not all of it could be read.
bool FolderWalk::enter(FileDescriptor folder, std::string name) {
  Level& level = levels_.emplace_back();
  level.name = std::move(name);
  level.folder = std::move(folder);
  return list(level, entries_bytes, true);
}

/// Continues to read the listing. Visits the files; keeps the names of folders until there are too many.
bool FolderWalk::list(Level& level, std::size_t bytes, bool files) {
  off_t before = level.from;
  while (!visitor_.done()) {
    const long length = ::syscall(SYS_getdents64, level.folder.get(), entries_.get(), bytes);
    if (length <= 0) return length == 0;
    files_.clear();
    for (long at = 0; at < length;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries_.get() + at);
      if (entry->d_type == DT_UNKNOWN && visitor_.done()) return true;
      const unsigned char type = typeOf(level.folder.get(), entry->d_name, entry->d_type);
      if (type == DT_DIR && !isDots(entry->d_name)) keepName(level, entry->d_name, before);
      if (files && type == DT_REG) files_.push_back(entry->d_name);
      if (files && type != DT_REG && type != DT_DIR && type != DT_UNKNOWN)
        visitor_.other(level.folder.get(), entry->d_name);
      before = entry->d_off;
      at += entry->d_reclen;
    }
    if (files) visitFiles(level.folder.get());
    if (!files && level.more) return true;
  }
  return true;
}

/// `before` is the place in the listing where this name begins.
void FolderWalk::keepName(Level& level, const char* name, off_t before) {
  if (level.more) return;
  const std::size_t bytes = sizeOf(name);
  if (names_ + bytes > names_bytes && !level.below.empty()) {
    level.more = true;
    level.from = before;
    return;
  }
  names_ += bytes;
  level.below.emplace_back(name);
}

/// Continues the listing where it was left. False, with errno, when it cannot be read.
bool FolderWalk::listMore(Level& level) {
  level.more = false;
  std::vector<std::string>().swap(level.below);
  if (::lseek(level.folder.get(), level.from, SEEK_SET) < 0) return false;
  return list(level, names_ < names_bytes / 2 ? entries_bytes : few_bytes, false);
}

/// Some file systems list names only.
unsigned char FolderWalk::typeOf(int folder, const char* name, unsigned char listed) {
  if (listed != DT_UNKNOWN) return listed;
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
    if (isFailure(errno)) visitor_.failed(errno);
    return DT_UNKNOWN;
  }
  if (S_ISDIR(status.st_mode)) return DT_DIR;
  return S_ISREG(status.st_mode) ? DT_REG : DT_LNK;  // a link stands for all other types
}

void FolderWalk::visitFiles(int folder) {
  std::atomic<std::size_t> next = 0;
  const auto visitSome = [&] {
    while (true) {
      const std::size_t first = next.fetch_add(files_in_one_go);
      const std::size_t end = std::min(first + files_in_one_go, files_.size());
      for (std::size_t i = first; i < end; ++i) {
        if (visitor_.done()) return;
        visitFile(folder, files_[i]);
      }
      if (end == files_.size()) return;
    }
  };
  // No exception may leave a thread.
  const auto visitSomeAndTell = [&] {
    try {
      visitSome();
    } catch (const std::bad_alloc&) {
      visitor_.failed(ENOMEM);
    }
  };
  if (threads_ == Threads::two && files_.size() >= files_worth_a_thread) {
    dispatch::runTwice(visitSomeAndTell);
  } else {
    visitSome();
  }
}

void FolderWalk::visitFile(int folder, const char* name) {
  struct statx status {};
  if (!looks_) return visitor_.file(folder, name, status);
  if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &status) != 0) {
    if (isFailure(errno)) visitor_.failed(errno);
  } else if (S_ISREG(status.stx_mode)) {
    visitor_.file(folder, name, status);
  }
}

void FolderWalk::enterNext() {
  Level& level = levels_.back();
  const std::string name = std::move(level.below.back());
  level.below.pop_back();
  names_ -= sizeOf(name);
  if (!visitor_.wants(name)) return;
  if (levels_.size() > deepest) return visitor_.notEntered(name, ENAMETOOLONG);
  FileDescriptor folder = openBelow(level.folder.get(), name.c_str());
  if (!folder) return visitor_.notEntered(name, errno);
  if (!visitor_.entered(level.folder.get(), folder.get(), name)) return;
  closeFar();
  if (!enter(std::move(folder), name)) visitor_.failed(errno);
}

/// The first stays open, because its path cannot be trusted.
void FolderWalk::closeFar() {
  if (levels_.size() <= open_levels) return;
  Level& far = levels_[levels_.size() - open_levels];
  struct stat status {};
  if (!far.folder || ::fstat(far.folder.get(), &status) != 0) return;
  far.device = status.st_dev;
  far.number = status.st_ino;
  far.folder.reset();
}

void FolderWalk::leave() {
  const Level level = std::move(levels_.back());
  levels_.pop_back();
  if (levels_.empty()) return;
  if (comeBack(level)) {
    visitor_.left(levels_.back().folder.get(), level.name);
    return;
  }
  // Somebody moved it: what is below the folders in between stays.
  visitor_.failed(ENOENT);
  visitor_.left(-1, level.name);
  while (!levels_.back().folder) {
    for (const std::string& name : levels_.back().below) names_ -= sizeOf(name);
    visitor_.left(-1, levels_.back().name);
    levels_.pop_back();
  }
}

bool FolderWalk::comeBack(const Level& from) {
  Level& level = levels_.back();
  if (level.folder) return true;
  FileDescriptor folder = openBelow(from.folder.get(), "..");
  struct stat found {};
  if (!folder || ::fstat(folder.get(), &found) != 0 || found.st_ino != level.number ||
      found.st_dev != level.device) {
    return false;
  }
  level.folder = std::move(folder);
  return true;
}

}  // namespace kelvane::client
