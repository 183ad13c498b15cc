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

/// Somebody else's space: a server's, a host's, or whatever a program makes of it.
bool isForeign(const std::string& type) {
  static constexpr std::array<std::string_view, 18> types = {
      "9p",  "afs", "beegfs", "ceph",  "cifs",     "coda", "davfs", "fuse",  "lustre",
      "ncp", "nfs", "nfs4",   "ncpfs", "orangefs", "smb3", "smbfs", "sshfs", "virtiofs"};
  return std::find(types.begin(), types.end(), type) != types.end() || type.starts_with("fuse.");
}

bool isOnBlockDevice(const MountEntry& mount) {
  return mount.source.starts_with("/dev/") || !(mount.device.empty() || mount.device.starts_with("0:"));
}

bool isLocal(const MountEntry& mount) {
  if (!mount.writable || isForeign(mount.type) || !isMessageText(mount.target)) return false;
  if (mount.type == "overlay" || mount.type == "btrfs" || mount.type == "zfs") return true;
  if (mount.type == "tmpfs") {
    static constexpr std::array<std::string_view, 4> system_folders = {"/dev", "/proc", "/run", "/sys"};
    return std::none_of(system_folders.begin(), system_folders.end(),
                        [&](std::string_view folder) { return isBelow(mount.target, folder); });
  }
  return isOnBlockDevice(mount);
}

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
    if (last_at[mounts[i].target] != i || !isLocal(mounts[i])) continue;
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

std::vector<std::string> foldersThatMayNotAnswer(const std::vector<MountEntry>& mounts) {
  std::vector<std::string> folders;
  for (const MountEntry& mount : mounts) {
    if (isForeign(mount.type) || mount.type == "fuseblk") folders.push_back(mount.target);
  }
  return folders;
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
