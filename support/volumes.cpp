#include "support/volumes.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <utility>

#include "common/keys.h"
#include "support/local_volumes.h"
#include "support/mount_table.h"
#include "support/quota.h"
#include "support/space_level.h"

namespace kelvane {
namespace {

/// A part of a file system may be a single file, mounted over another file: that is no volume. Only local
/// ones are looked at, since a server that does not answer would keep us.
bool isDirectory(const MountEntry& mount) {
  struct stat status {};
  return mount.root == "/" || ::stat(mount.target.c_str(), &status) != 0 || S_ISDIR(status.st_mode);
}

class SystemVolumeSource final : public VolumeSource {
 public:
  std::vector<MountEntry> mounts() override {
    std::vector<MountEntry> all = readMountTable().value_or(std::vector<MountEntry>());
    std::erase_if(all, [](const MountEntry& mount) {
      return !localVolumesAmong({mount}).empty() && !isDirectory(mount);
    });
    return all;
  }

  std::uint64_t mountsGeneration() override { return watch_.generation(); }

  std::optional<VolumeSpace> space(const std::string& path) override {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) return std::nullopt;
    return VolumeSpace{status.f_bavail * status.f_frsize, status.f_blocks * status.f_frsize, status.f_favail,
                       status.f_files};
  }

  std::optional<std::vector<std::string>> overQuota(uid_t user) override {
    bool any_answered = false;
    std::vector<std::string> over;
    for (const MountEntry& volume : localVolumesAmong(mounts())) {
      const std::optional<QuotaUsage> usage = quotaUsage(volume.source, user);
      any_answered |= usage.has_value();
      if (usage && isOverQuota(*usage)) over.push_back(volume.target);
    }
    if (!any_answered) return std::nullopt;
    return over;
  }

 private:
  MountTableWatch watch_;
};

/// What this file keeps between calls.
class Volumes {
 public:
  static Volumes& shared() {
    static Volumes& volumes = *new Volumes;
    return volumes;
  }

  VolumeSource& source() const { return *source_.load(std::memory_order_acquire); }

  void install(VolumeSource* source) {
    const std::lock_guard lock(mutex_);
    source_.store(source != nullptr ? source : &system_, std::memory_order_release);
    local_generation_ = 0;
    levels_.clear();
  }

  std::vector<std::string> local() {
    const std::lock_guard lock(mutex_);
    return refreshedLocal();
  }

  bool isLocal(const std::string& path) {
    const std::lock_guard lock(mutex_);
    const std::vector<std::string>& volumes = refreshedLocal();
    return std::find(volumes.begin(), volumes.end(), path) != volumes.end();
  }

  std::vector<std::string> low() {
    using Space = std::pair<std::string, std::optional<VolumeSpace>>;
    std::vector<Space> spaces;  // asked for outside the lock
    for (std::string& volume : local()) {
      std::optional<VolumeSpace> space = source().space(volume);
      spaces.emplace_back(std::move(volume), space);
    }
    const std::lock_guard lock(mutex_);
    std::map<std::string, SpaceLevel> levels;
    std::vector<std::string> result;
    for (const auto& [volume, space] : spaces) {
      if (!space) continue;
      const SpaceLevel level = spaceLevel(*space, levels_[volume]);
      levels[volume] = level;
      if (level != SpaceLevel::plenty) result.push_back(volume);
    }
    levels_ = std::move(levels);  // what is no longer mounted is forgotten
    return result;
  }

 private:
  const std::vector<std::string>& refreshedLocal() {
    // The generation comes first: a change that falls between the two is seen at the next call.
    const std::uint64_t generation = source().mountsGeneration();
    if (generation == 0 || generation != local_generation_) {
      local_.clear();
      for (MountEntry& mount : localVolumesAmong(source().mounts()))
        local_.push_back(std::move(mount.target));
      local_generation_ = generation;
    }
    return local_;
  }

  SystemVolumeSource system_;
  std::atomic<VolumeSource*> source_{&system_};

  std::mutex mutex_;                          // guards all below
  std::uint64_t local_generation_ = 0;        // of local_; 0: none
  std::vector<std::string> local_;            // paths, in the order of the mount table
  std::map<std::string, SpaceLevel> levels_;  // of the local volumes when last asked
};

}  // namespace

VolumeSource& VolumeSource::current() { return Volumes::shared().source(); }
void VolumeSource::install(VolumeSource* source) { Volumes::shared().install(source); }

std::vector<std::string> getLocalVolumes() { return Volumes::shared().local(); }

std::optional<std::vector<std::string>> lowSpaceVolumes() { return Volumes::shared().low(); }

std::optional<std::vector<std::string>> quotaVolumes(uid_t user) {
  return VolumeSource::current().overQuota(user);
}

bool validateVolume(const Dictionary& info) {
  const std::string* volume = info[KELVANE_VOLUME].string();
  if (volume == nullptr) return false;
  const std::string path = plainPath(*volume);
  return !path.empty() && Volumes::shared().isLocal(path);
}

std::uint64_t volumeFreespace(const std::string& volume) {
  const std::optional<VolumeSpace> space = VolumeSource::current().space(volume);
  return space ? space->bytes_free : 0;
}

}  // namespace kelvane
