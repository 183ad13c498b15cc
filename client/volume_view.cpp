#include "client/volume_view.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "support/local_volumes.h"

namespace kelvane::client {
namespace {

constexpr std::uint64_t unknown_mount = 0;

struct Place {
  std::uint64_t mount = unknown_mount;
  std::string device;  // "major:minor"
};

/// For kernels whose statx does not return the mount ID.
std::uint64_t mountNumberOf(int descriptor) {
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
  for (std::string word; info >> word;) {
    std::uint64_t number = unknown_mount;
    if (word == "mnt_id:" && info >> number) return number;
  }
  return unknown_mount;
}

std::optional<Place> placeOf(int descriptor) {
  struct statx status {};
  if (::statx(descriptor, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) !=
      0) {
    return std::nullopt;
  }
  Place place;
  place.mount = (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : mountNumberOf(descriptor);
  place.device = std::to_string(status.stx_dev_major) + ':' + std::to_string(status.stx_dev_minor);
  return place;
}

bool hasNumbers(const std::vector<MountEntry>& mounts) {
  return std::any_of(mounts.begin(), mounts.end(),
                     [](const MountEntry& mount) { return mount.id != unknown_mount; });
}

std::string nameOf(int descriptor) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error).string();
}

}  // namespace

const MountEntry* VolumeView::holderOf(int descriptor) const {
  const std::optional<Place> place = placeOf(descriptor);
  if (!place) return nullptr;
  if (!hasNumbers(mounts_)) return holderByName(nameOf(descriptor));
  const auto found = std::find_if(mounts_.begin(), mounts_.end(),
                                  [&](const MountEntry& mount) { return mount.id == place->mount; });
  // Detached mounts and mounts of single files are not in the table, but their device may be.
  return found != mounts_.end() ? &*found : holderByDevice(place->device);
}

const MountEntry* VolumeView::holderByName(const std::string& path) const {
  const std::string plain = plainPath(path);
  const MountEntry* holder = nullptr;
  for (const MountEntry& mount : mounts_) {  // of several at one path the last hides the others
    if (!plain.empty() && isInOneOf({mount.target}, plain) &&
        (holder == nullptr || mount.target.size() >= holder->target.size()))
      holder = &mount;
  }
  return holder;
}

const MountEntry* VolumeView::holderByDevice(const std::string& device) const {
  const auto found = std::find_if(mounts_.begin(), mounts_.end(),
                                  [&](const MountEntry& mount) { return mount.device == device; });
  return found != mounts_.end() ? &*found : nullptr;
}

std::optional<std::string> VolumeView::volumeOf(const MountEntry& holder) const {
  // The same device may be mounted in several places; one of them represents it.
  for (const MountEntry& volume : localVolumesAmong(mounts_)) {
    if (volume.device == holder.device) return volume.target;
  }
  return std::nullopt;
}

bool VolumeView::isOn(const MountEntry& holder, const std::string& volume) const {
  const std::string plain = plainPath(volume);
  const auto last = std::find_if(mounts_.rbegin(), mounts_.rend(),
                                 [&](const MountEntry& mount) { return mount.target == plain; });
  return last != mounts_.rend() && last->device == holder.device;
}

bool VolumeView::mayNotAnswer(const std::string& path) const {
  const MountEntry* const holder = holderByName(path);
  return holder != nullptr && kelvane::mayNotAnswer(*holder);
}

/// Not O_DIRECTORY, which would wake an automounter.
FileDescriptor openPlainly(const VolumeView& view, const std::string& path) {
  if (view.mayNotAnswer(path)) {
    errno = EREMOTE;
    return {};
  }
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

}  // namespace kelvane::client
