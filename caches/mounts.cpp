#include "caches/mounts.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <utility>

#include "support/local_volumes.h"

namespace kelvane::caches {
namespace {

constexpr int most_links = 8;
constexpr std::size_t most_names = 256;

bool holds(const std::string& mount, const std::string& path) {
  return mount == "/" || path == mount || path.starts_with(mount + "/");
}

std::string refusalOfMount(const MountEntry& mount) {
  if (!mayNotAnswer(mount)) return {};
  return fmt::format("{} is a mount of type {}, which may not answer", mount.target, mount.type);
}

std::deque<std::string> namesOf(const std::string& path) {
  std::deque<std::string> names;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) names.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

OpenedDirectory refused(std::string reason, int error = 0) { return {{}, {}, std::move(reason), error}; }

OpenedDirectory failed(const std::string& path, int error) {
  return refused(fmt::format("{}: {}", path, std::strerror(error)), error);
}

/// The target of the link, or why it is not followed.
std::pair<std::string, std::string> targetOf(int link, const struct stat& status, const std::string& path) {
  std::array<char, PATH_MAX> target{};
  if (status.st_uid != 0) return {"", fmt::format("{} is a symbolic link that is not root's", path)};
  const ssize_t length = ::readlinkat(link, "", target.data(), target.size());
  if (length <= 0) return {"", fmt::format("{}: {}", path, std::strerror(errno))};
  return {std::string(target.data(), static_cast<std::size_t>(length)), ""};
}

std::string childOf(const std::string& parent, const std::string& name) {
  return parent == "/" ? "/" + name : parent + "/" + name;
}

/// Opens the name in the parent, of any type, with O_PATH.
OpenedDirectory openName(const Mounts& mounts, const OpenedDirectory& parent, const std::string& name) {
  OpenedDirectory result;
  result.path = childOf(parent.path, name);
  if (std::string reason = mounts.refusal(result.path); !reason.empty()) return refused(std::move(reason));
  // Without O_DIRECTORY, so that no automount is triggered.
  result.directory =
      FileDescriptor(::openat(parent.directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!result.directory) return failed(result.path, errno);
  if (std::string reason = mounts.refusalOf(result.directory.get()); !reason.empty()) {
    return refused(std::move(reason));
  }
  return result;
}

}  // namespace

std::string Mounts::refusal(const std::string& path) const {
  const MountEntry* holder = nullptr;
  for (const MountEntry& mount : table_) {  // of several at one path the last hides the others
    if (holds(mount.target, path) && (holder == nullptr || mount.target.size() >= holder->target.size()))
      holder = &mount;
  }
  if (holder == nullptr) return path + " is on no mount in the mount table";
  return refusalOfMount(*holder);
}

std::string Mounts::refusalOf(int descriptor) const {
  const std::uint64_t id = idOf(descriptor);
  const auto mount = std::find_if(table_.begin(), table_.end(),
                                  [&](const MountEntry& entry) { return id != 0 && entry.id == id; });
  if (mount == table_.end()) return "its mount is not in the mount table: it may be new";
  return refusalOfMount(*mount);
}

std::uint64_t Mounts::idOf(int descriptor) {
#ifndef STATX_MNT_ID
  constexpr unsigned STATX_MNT_ID = 0x1000;
#endif
  struct statx status {};
  const int flags = AT_EMPTY_PATH | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
  if (::statx(descriptor, "", flags, STATX_MNT_ID, &status) != 0) return 0;
  return (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0;
}

OpenedDirectory openIn(const Mounts& mounts, const OpenedDirectory& parent, const std::string& name) {
  OpenedDirectory child = openName(mounts, parent, name);
  struct stat status {};
  if (!child.directory) return child;
  if (::fstat(child.directory.get(), &status) != 0) return failed(child.path, errno);
  if (S_ISLNK(status.st_mode)) return refused(child.path + " is a symbolic link", ELOOP);
  if (!S_ISDIR(status.st_mode)) return refused(child.path + " is not a directory", ENOTDIR);
  return child;
}

OpenedDirectory openDirectory(const Mounts& mounts, const std::string& path, Links links) {
  const auto root = [] {
    return OpenedDirectory{FileDescriptor(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)), "/", {}, 0};
  };
  OpenedDirectory at = root();
  std::deque<std::string> names = namesOf(path);
  int followed = 0;
  while (!names.empty()) {
    if (names.size() > most_names) return refused(path + " has too many names");
    const std::string name = std::move(names.front());
    names.pop_front();
    if (name == "." || name == "..") return refused(path + " leads through \".\" or \"..\"");
    OpenedDirectory child = openName(mounts, at, name);
    struct stat status {};
    if (!child.directory) return child;
    if (::fstat(child.directory.get(), &status) != 0) return failed(child.path, errno);
    if (S_ISDIR(status.st_mode)) {
      at = std::move(child);
      continue;
    }
    if (!S_ISLNK(status.st_mode)) return refused(child.path + " is not a directory", ENOTDIR);
    if (links == Links::refused) return refused(child.path + " is a symbolic link", ELOOP);
    if (++followed > most_links) return refused(path + " leads through too many symbolic links", ELOOP);
    const auto [target, reason] = targetOf(child.directory.get(), status, child.path);
    if (!reason.empty()) return refused(reason);
    const std::deque<std::string> further = namesOf(target);
    names.insert(names.begin(), further.begin(), further.end());
    if (target.starts_with('/')) at = root();
  }
  return at;
}

}  // namespace kelvane::caches
