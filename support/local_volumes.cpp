#include "support/local_volumes.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>

#include "platform/foundation/utf8.h"

namespace kelvane {
namespace {

bool isBelow(const std::string& path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

template <std::size_t count>
bool isOneOf(const std::array<std::string_view, count>& types, const std::string& type) {
  return std::find(types.begin(), types.end(), type) != types.end();
}

/// The kernel appends to "fuse" and "fuseblk" what the program calls its file system.
bool isServedByAProgram(const std::string& type) {
  return type == "fuse" || type == "fuseblk" || type.starts_with("fuse.") || type.starts_with("fuseblk.");
}

/// Somebody else's space: a server's or a host's.
bool isForeign(const std::string& type) {
  static constexpr std::array<std::string_view, 21> types = {
      "9p",  "afs",  "beegfs", "ceph",  "cifs",     "coda",  "davfs", "glusterfs", "gpfs",  "lustre",  "ncp",
      "nfs", "nfs4", "ncpfs",  "panfs", "orangefs", "pvfs2", "smb3",  "smbfs",     "sshfs", "virtiofs"};
  return isOneOf(types, type);
}

bool hasBlockDeviceNumber(const MountEntry& mount) {
  return !mount.device.empty() && !mount.device.starts_with("0:");
}

bool isOnBlockDevice(const MountEntry& mount) {
  // A FUSE program may choose any source name, such as "/dev/sda1", and any user may run it.
  if (isServedByAProgram(mount.type)) return hasBlockDeviceNumber(mount);
  return mount.source.starts_with("/dev/") || hasBlockDeviceNumber(mount);
}

}  // namespace

bool isLocalVolume(const MountEntry& mount) {
  if (!mount.writable || isForeign(mount.type) || !isMessageText(mount.target)) return false;
  if (mount.type == "overlay" || mount.type == "btrfs" || mount.type == "zfs") return true;
  if (mount.type == "tmpfs") {
    static constexpr std::array<std::string_view, 4> system_folders = {"/dev", "/proc", "/run", "/sys"};
    return std::none_of(system_folders.begin(), system_folders.end(),
                        [&](std::string_view folder) { return isBelow(mount.target, folder); });
  }
  return isOnBlockDevice(mount);
}

namespace {

/// Whether `a` stands for the device rather than `b`, which comes before it in the table.
bool isBetter(const MountEntry& a, const MountEntry& b) {
  if ((a.root == "/") != (b.root == "/")) return a.root == "/";
  return a.target.size() < b.target.size();
}

}  // namespace

std::vector<MountEntry> localVolumesAmong(const std::vector<MountEntry>& mounts) {
  std::map<std::string, std::size_t> last_at;  // path to place in the table
  for (std::size_t i = 0; i < mounts.size(); ++i) last_at[mounts[i].target] = i;

  std::map<std::string, std::size_t> best_of;  // device to place in the table
  for (std::size_t i = 0; i < mounts.size(); ++i) {
    if (last_at[mounts[i].target] != i || !isLocalVolume(mounts[i])) continue;
    const auto [place, is_first] = best_of.try_emplace(mounts[i].device, i);
    if (!is_first && isBetter(mounts[i], mounts[place->second])) place->second = i;
  }

  std::vector<std::size_t> chosen;
  chosen.reserve(best_of.size());
  for (const auto& [device, place] : best_of) chosen.push_back(place);
  std::sort(chosen.begin(), chosen.end());
  std::vector<MountEntry> result;
  result.reserve(chosen.size());
  for (const std::size_t place : chosen) result.push_back(mounts[place]);
  return result;
}

bool mayNotAnswer(const MountEntry& mount) {
  // An automounter, or the locks of a cluster file system, may block just like a server.
  static constexpr std::array<std::string_view, 3> others = {"autofs", "gfs2", "ocfs2"};
  return isForeign(mount.type) || isServedByAProgram(mount.type) || isOneOf(others, mount.type);
}

bool answersAtOnce(const MountEntry& mount) {
  static constexpr std::array<std::string_view, 8> types = {"btrfs", "ext2",  "ext3",  "ext4",
                                                            "f2fs",  "ramfs", "tmpfs", "xfs"};
  return isOneOf(types, mount.type);
}

bool isInOneOf(const std::vector<std::string>& folders, const std::string& path) {
  return std::any_of(folders.begin(), folders.end(), [&](const std::string& folder) {
    return isBelow(path, folder == "/" ? std::string_view() : folder);
  });
}

std::string plainPath(const std::string& path) {
  if (!path.starts_with('/')) return {};
  std::string result;
  for (const char c : path) {
    if (c != '/' || !result.ends_with('/')) result += c;
  }
  if (result.size() > 1 && result.ends_with('/')) result.pop_back();
  return result;
}

}  // namespace kelvane
