#include "support/volumes.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <utility>

#include "common/keys.h"
#include "support/local_volumes.h"
#include "support/space_level.h"
#include "support/system_volumes.h"

namespace kelvane {
namespace {

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

  VolumeLook judge(const std::string& volume, const VolumeSpace& space) {
    const std::lock_guard lock(mutex_);
    SpaceLevel& level = levels_[volume];
    level = spaceLevel(space, level, thresholds_);
    return VolumeLook{space, level};
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

  SystemVolumes system_;
  std::atomic<VolumeSource*> source_{&system_};
  SpaceThresholds thresholds_;  // constant once volumes are asked for

  std::mutex mutex_;                          // guards all below
  std::uint64_t local_generation_ = 0;        // of local_; 0: none
  std::vector<std::string> local_;            // paths, in the order of the mount table
  std::map<std::string, SpaceLevel> levels_;  // of the volumes when last looked at
};

}  // namespace

std::vector<std::optional<VolumeSpace>> VolumeSource::spaces(const std::vector<std::string>& paths) {
  std::vector<std::optional<VolumeSpace>> result;
  for (const std::string& path : paths) result.push_back(space(path));
  return result;
}

VolumeSource& VolumeSource::current() { return Volumes::shared().source(); }
void VolumeSource::install(VolumeSource* source) { Volumes::shared().install(source); }

std::vector<std::string> getLocalVolumes() { return Volumes::shared().local(); }

void setSpaceThresholds(const SpaceThresholds& thresholds) { Volumes::shared().setThresholds(thresholds); }
const SpaceThresholds& spaceThresholds() { return Volumes::shared().thresholds(); }

std::optional<VolumeLook> lookAtVolume(const std::string& volume) {
  const std::optional<VolumeSpace> space = VolumeSource::current().space(volume);
  if (!space) return std::nullopt;
  return Volumes::shared().judge(volume, *space);
}

std::optional<std::vector<std::string>> lowSpaceVolumes() {
  const std::vector<std::string> volumes = getLocalVolumes();
  const std::vector<std::optional<VolumeSpace>> spaces = VolumeSource::current().spaces(volumes);
  std::vector<std::string> low;
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (spaces[i] && Volumes::shared().judge(volumes[i], *spaces[i]).level != SpaceLevel::plenty)
      low.push_back(volumes[i]);
  }
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

std::vector<std::uint64_t> volumeFreespaces(const std::vector<std::string>& volumes) {
  std::vector<std::uint64_t> result;
  for (const std::optional<VolumeSpace>& space : VolumeSource::current().spaces(volumes))
    result.push_back(space ? space->bytes_free : 0);
  return result;
}

}  // namespace kelvane
