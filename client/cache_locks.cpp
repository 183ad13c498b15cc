#include "client/cache_locks.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

namespace kelvane::client {
namespace {

/// Follows no link; for an absolute path, none at its end.
FileDescriptor openLock(int directory, const std::string& path, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_NOFOLLOW | O_CLOEXEC);
  how.resolve = path.front() == '/' ? 0 : RESOLVE_NO_SYMLINKS;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how)));
}

bool isAbsent(int error) { return error == ENOENT || error == ENOTDIR; }

/// Opens for writing if that is allowed.
FileDescriptor openToLock(int directory, const CacheLock& lock) {
  constexpr int careful = O_NONBLOCK | O_NOCTTY;
  FileDescriptor file;
  if (lock.kind == CacheLock::Kind::record) file = openLock(directory, lock.path, O_RDWR | careful);
  return file ? std::move(file) : openLock(directory, lock.path, O_RDONLY | careful);
}

/// An OFD lock conflicts with those of processes, but is not lost when this one closes the file elsewhere.
bool takeRecord(int file) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  if ((::fcntl(file, F_GETFL) & O_ACCMODE) == O_RDWR) return ::fcntl(file, F_OFD_SETLK, &whole) == 0;
  return ::fcntl(file, F_OFD_GETLK, &whole) == 0 && whole.l_type == F_UNLCK;
}

bool takeLock(int file, CacheLock::Kind kind) {
  return kind == CacheLock::Kind::flock ? ::flock(file, LOCK_EX | LOCK_NB) == 0 : takeRecord(file);
}

bool namesUnit(const std::string& path) {
  return path.find("{name}") != std::string::npos || path.find("{stem}") != std::string::npos ||
         path.find("{version}") != std::string::npos;
}

/// Placeholders within the unit's name are not replaced.
std::string pathFor(std::string_view path, const std::string& name) {
  const std::size_t at = name.rfind('@');
  const std::string version = at == std::string::npos ? "" : name.substr(at + 1);
  const std::array<std::pair<std::string_view, std::string>, 3> words{
      {{"{name}", name}, {"{stem}", name.substr(0, at)}, {"{version}", version}}};
  std::string result;
  while (!path.empty()) {
    const auto* const word =
        std::find_if(words.begin(), words.end(), [&](const auto& it) { return path.starts_with(it.first); });
    result += word == words.end() ? std::string(path.substr(0, 1)) : word->second;
    path.remove_prefix(word == words.end() ? 1 : word->first.size());
  }
  return result;
}

}  // namespace

bool CacheLocks::take(int directory, const std::vector<CacheLock>& locks) {
  const std::size_t before = held_.size();
  for (const CacheLock& lock : locks) {
    if (takeOne(directory, lock)) continue;
    held_.resize(before);
    return false;
  }
  return true;
}

bool CacheLocks::takeForUnit(int root, int unit, const std::string& name,
                             const std::vector<CacheLock>& locks) {
  const std::size_t before = held_.size();
  for (const CacheLock& lock : locks) {
    if (takeOne(namesUnit(lock.path) ? root : unit, {lock.kind, pathFor(lock.path, name)})) continue;
    held_.resize(before);
    return false;
  }
  return true;
}

bool CacheLocks::have(dev_t device, ino_t number) const {
  return std::any_of(held_.begin(), held_.end(),
                     [&](const Held& it) { return it.device == device && it.number == number; });
}

bool CacheLocks::takeOne(int directory, const CacheLock& lock) {
  const FileDescriptor found = openLock(directory, lock.path, O_PATH);
  if (!found) return isAbsent(errno);
  if (lock.kind == CacheLock::Kind::exists) return false;
  struct stat status {};
  if (::fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  FileDescriptor file = openToLock(directory, lock);
  if (!file) return isAbsent(errno);
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  for (const Held& held : held_)
    if (held.kind == lock.kind && held.device == status.st_dev && held.number == status.st_ino) return true;
  if (!takeLock(file.get(), lock.kind)) return false;
  held_.push_back({std::move(file), lock.kind, status.st_dev, status.st_ino});
  return true;
}

}  // namespace kelvane::client
