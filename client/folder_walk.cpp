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
#include <utility>

#include "platform/dispatch/thread.h"

namespace kelvane::client {
namespace {

constexpr std::size_t entries_bytes = std::size_t{256} << 10;
constexpr std::size_t open_levels = 32;
constexpr std::size_t files_worth_a_thread = 32;
constexpr std::size_t files_in_one_go = 8;

bool isDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

/// What is there no longer, or was replaced by a link or a file, or is another mount, is nobody's failure.
bool isFailure(int error) { return error != ENOENT && error != ELOOP && error != ENOTDIR && error != EXDEV; }

}  // namespace

FileDescriptor openBelow(int folder, const char* path) {
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how)));
}

FolderWalk::FolderWalk(Visitor& visitor, Threads threads, bool looks)
    : visitor_(visitor), threads_(threads), looks_(looks), entries_(entries_bytes) {}

bool FolderWalk::run(int folder) {
  FileDescriptor own = openBelow(folder, ".");
  if (!own || !enter(std::move(own), "")) return false;
  while (!levels_.empty() && !visitor_.done()) {
    if (levels_.back().below.empty()) {
      leave();
    } else {
      enterNext();
    }
  }
  return true;
}

/// Visits the files and notes the folders. False, with errno, when not all of it could be read.
bool FolderWalk::enter(FileDescriptor folder, std::string name) {
  Level& level = levels_.emplace_back(Level{std::move(name), std::move(folder), {}, {}});
  long length = 1;
  while (length > 0 && !visitor_.done()) {
    length = ::syscall(SYS_getdents64, level.folder.get(), entries_.data(), entries_.size());
    files_.clear();
    for (long at = 0; at < length;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries_.data() + at);
      if (entry->d_type == DT_UNKNOWN && visitor_.done()) break;
      const unsigned char type = typeOf(level.folder.get(), entry->d_name, entry->d_type);
      if (type == DT_REG) files_.push_back(entry->d_name);
      if (type == DT_DIR && !isDots(entry->d_name)) level.below.emplace_back(entry->d_name);
      at += entry->d_reclen;
    }
    visitFiles(level.folder.get());
  }
  return length >= 0;
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
  return S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
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
  if (threads_ == Threads::two && files_.size() >= files_worth_a_thread) {
    dispatch::runTwice(visitSome);
  } else {
    visitSome();
  }
}

void FolderWalk::visitFile(int folder, const char* name) {
  struct stat status {};
  if (!looks_) return visitor_.file(folder, name, status);
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
    if (isFailure(errno)) visitor_.failed(errno);
  } else if (S_ISREG(status.st_mode)) {
    visitor_.file(folder, name, status);
  }
}

void FolderWalk::enterNext() {
  Level& level = levels_.back();
  std::string name = std::move(level.below.back());
  level.below.pop_back();
  FileDescriptor folder = openBelow(level.folder.get(), name.c_str());
  if (!folder) {
    if (isFailure(errno)) visitor_.failed(errno);
    return;
  }
  // The first stays open: nobody else may be trusted with the way back to it.
  if (levels_.size() > open_levels) {
    Level& far = levels_[levels_.size() - open_levels];
    if (::fstat(far.folder.get(), &far.identity) == 0) far.folder.reset();
  }
  visitor_.entered(name);
  if (!enter(std::move(folder), std::move(name))) visitor_.failed(errno);
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
    visitor_.left(-1, levels_.back().name);
    levels_.pop_back();
  }
}

bool FolderWalk::comeBack(const Level& from) {
  Level& level = levels_.back();
  if (level.folder) return true;
  FileDescriptor folder = openBelow(from.folder.get(), "..");
  struct stat found {};
  if (!folder || ::fstat(folder.get(), &found) != 0 || found.st_ino != level.identity.st_ino ||
      found.st_dev != level.identity.st_dev) {
    return false;
  }
  level.folder = std::move(folder);
  return true;
}

}  // namespace kelvane::client
