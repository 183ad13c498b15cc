#include "support/volumes.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "common/keys.h"
#include "support/local_volumes.h"
#include "support/mount_table.h"
#include "support/quota.h"
#include "support/space_level.h"
#include "support/space_probe.h"

namespace kelvane {
namespace {

class SystemVolumeSource final : public VolumeSource {
 public:
  std::vector<MountEntry> mounts() override {
    const std::lock_guard lock(mutex_);  // so that what was read last is kept
    std::vector<MountEntry> all = readMountTable().value_or(std::vector<MountEntry>());
    const std::vector<std::string> doubtful = foldersThatMayNotAnswer(all);
    std::set<std::string> prompt;
    std::erase_if(all, [&](const MountEntry& mount) {
      if (localVolumesAmong({mount}).empty() || isInOneOf(doubtful, mount.target)) return false;
      if (!isDirectory(mount)) return true;
      prompt.insert(mount.target);
      return false;
    });
    prompt_ = std::move(prompt);
    return all;
  }

  std::uint64_t mountsGeneration() override { return watch_.generation(); }

  std::optional<VolumeSpace> space(const std::string& path) override {
    const std::string plain = plainPath(path);
    return isPrompt(plain) ? ask(plain) : probe_.ask(plain);
  }

  std::optional<std::vector<std::string>> overQuota(uid_t user) override {
    bool any_answered = false;
    std::vector<std::string> over;
    for (const MountEntry& volume : localVolumesAmong(mounts())) {
      if (!isPrompt(volume.target)) continue;
      const std::optional<QuotaUsage> usage = quotaUsage(volume.target, user);
      any_answered |= usage.has_value();
      if (usage && isOverQuota(*usage)) over.push_back(volume.target);
    }
    if (!any_answered) return std::nullopt;
    return over;
  }

 private:
  /// A part of a file system may be a single file, mounted over another file: that is no volume.
  static bool isDirectory(const MountEntry& mount) {
    struct stat status {};
    return mount.root == "/" || ::stat(mount.target.c_str(), &status) != 0 || S_ISDIR(status.st_mode);
  }

  static std::optional<VolumeSpace> ask(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) return std::nullopt;
    return VolumeSpace{status.f_bavail * status.f_frsize, status.f_blocks * status.f_frsize, status.f_favail,
                       status.f_files};
  }

  bool isPrompt(const std::string& path) {
    const std::lock_guard lock(mutex_);
    return prompt_.contains(path);
  }

  MountTableWatch watch_;
  SpaceProbe probe_{ask};
  std::mutex mutex_;
  std::set<std::string> prompt_;  // volumes that always answer; guarded by mutex_
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

  std::optional<VolumeLook> look(const std::string& volume) {
    const std::optional<VolumeSpace> space = source().space(volume);  // outside the lock
    if (!space) return std::nullopt;
    const std::lock_guard lock(mutex_);
    SpaceLevel& level = levels_[volume];
    level = spaceLevel(*space, level, thresholds_);
    return VolumeLook{*space, level};
  }

  const SpaceThresholds& thresholds() const { return thresholds_; }
  void setThresholds(const SpaceThresholds& thresholds) { thresholds_ = thresholds; }

 private:
  const std::vector<std::string>& refreshedLocal() {
    // The generation comes first: a change that falls between the two is seen at the next call.
    const std::uint64_t generation = source().mountsGeneration();
    if (generation == 0 || generation != local_generation_) {
      local_.clear();
      for (MountEntry& mount : localVolumesAmong(source().mounts()))
        local_.push_back(std::move(mount.target));
      std::erase_if(levels_, [this](const auto& known) {
        return std::find(local_.begin(), local_.end(), known.first) == local_.end();
      });
      local_generation_ = generation;
    }
    return local_;
  }

  SystemVolumeSource system_;
  std::atomic<VolumeSource*> source_{&system_};
  SpaceThresholds thresholds_;  // constant once volumes are asked for

  std::mutex mutex_;                          // guards all below
  std::uint64_t local_generation_ = 0;        // of local_; 0: none
  std::vector<std::string> local_;            // paths, in the order of the mount table
  std::map<std::string, SpaceLevel> levels_;  // of the volumes when last looked at
};

}  // namespace

VolumeSource& VolumeSource::current() { return Volumes::shared().source(); }
void VolumeSource::install(VolumeSource* source) { Volumes::shared().install(source); }

std::vector<std::string> getLocalVolumes() { return Volumes::shared().local(); }

void setSpaceThresholds(const SpaceThresholds& thresholds) { Volumes::shared().setThresholds(thresholds); }
const SpaceThresholds& spaceThresholds() { return Volumes::shared().thresholds(); }

std::optional<VolumeLook> lookAtVolume(const std::string& volume) { return Volumes::shared().look(volume); }

std::optional<std::vector<std::string>> lowSpaceVolumes() {
  std::vector<std::string> low = getLocalVolumes();
  std::erase_if(low, [](const std::string& volume) {
    const std::optional<VolumeLook> look = lookAtVolume(volume);
    return !look || look->level == SpaceLevel::plenty;
  });
  return low;
}

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
