#include "support/system_volumes.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <utility>

#include "support/cached_path.h"
#include "support/local_volumes.h"

namespace kelvane {
namespace {

/// A bind mount may be a single file, which is not a volume. If the type cannot be determined without
/// waiting, it counts as a directory.
bool isFile(const MountEntry& mount) {
  if (mount.root == "/") return false;
  const FileDescriptor place = openCached(mount.target);
  const auto identity = place ? cachedIdentity(place.get()) : std::nullopt;
  return identity && identity->mount == mount.id && !S_ISDIR(identity->mode);
}

std::optional<VolumeSpace> spaceOf(int failed, const struct statvfs& status) {
  if (failed != 0) return std::nullopt;
  return VolumeSpace{status.f_bavail * status.f_frsize, status.f_blocks * status.f_frsize, status.f_favail,
                     status.f_files};
}

std::optional<VolumeSpace> askByPath(const std::string& path) {
  struct statvfs status {};
  return spaceOf(::statvfs(path.c_str(), &status), status);
}

std::uint64_t mountAt(const std::string& path) {
  const FileDescriptor place = openCached(path);
  const auto identity = place ? cachedIdentity(place.get()) : std::nullopt;
  return identity ? identity->mount : 0;
}

}  // namespace

/// A query for free space: answered at once, or passed to the probe.
class SystemVolumes::SpaceQuestion {
 public:
  SpaceQuestion(SystemVolumes& volumes, const std::string& path) : probe_(volumes.space_probe_) {
    const std::string plain = plainPath(path);
    const FileDescriptor place = openCached(plain);
    const auto identity = place ? cachedIdentity(place.get()) : std::nullopt;
    const std::uint64_t mount = identity ? identity->mount : 0;
    if (volumes.answersAtOnce(mount)) {
      struct statvfs status {};
      answer_ = spaceOf(::fstatvfs(place.get(), &status), status);
    } else {
      question_ = probe_.put({plain, mount}, [plain] { return askByPath(plain); });
    }
  }
  [[nodiscard]] std::optional<VolumeSpace> answer() const {
    return question_ != nullptr ? probe_.answerTo(question_) : answer_;
  }

 private:
  VolumeProbe<VolumeSpace>& probe_;
  std::shared_ptr<VolumeProbe<VolumeSpace>::Question> question_;
  std::optional<VolumeSpace> answer_;
};

std::vector<MountEntry> SystemVolumes::mounts() {
  const std::lock_guard lock(mutex_);
  std::vector<MountEntry> all = readTable();
  std::erase_if(all, [](const MountEntry& mount) { return isLocalVolume(mount) && isFile(mount); });
  return all;
}

std::vector<MountEntry> SystemVolumes::readTable() {
  // The generation comes first: a change that falls between the two is seen at the next call.
  prompt_generation_ = watch_.generation();
  std::vector<MountEntry> all = readMountTable().value_or(std::vector<MountEntry>());
  prompt_.clear();
  for (const MountEntry& mount : all) {
    if (mount.id != 0 && kelvane::answersAtOnce(mount)) prompt_.insert(mount.id);
  }
  return all;
}

bool SystemVolumes::answersAtOnce(std::uint64_t open_mount) {
  const std::lock_guard lock(mutex_);
  // Mount IDs are reused, but not while the mount is open. So a table that is unchanged since it was read, or
  // read now, identifies this mount.
  if (prompt_generation_ == 0 || watch_.generation() != prompt_generation_) static_cast<void>(readTable());
  return prompt_.contains(open_mount);
}

std::optional<VolumeSpace> SystemVolumes::space(const std::string& path) {
  return SpaceQuestion(*this, path).answer();
}

std::vector<std::optional<VolumeSpace>> SystemVolumes::spaces(const std::vector<std::string>& paths) {
  std::vector<SpaceQuestion> questions;
  questions.reserve(paths.size());
  for (const std::string& path : paths) questions.emplace_back(*this, path);
  std::vector<std::optional<VolumeSpace>> answers;
  answers.reserve(paths.size());
  for (const SpaceQuestion& question : questions) answers.push_back(question.answer());
  return answers;
}

std::optional<std::vector<std::string>> SystemVolumes::overQuota(uid_t user) {
  // All are asked by a probe: quotas may have to be read from the device.
  const std::vector<MountEntry> volumes = localVolumesAmong(mounts());
  std::vector<std::shared_ptr<VolumeProbe<QuotaUsage>::Question>> questions;
  for (const MountEntry& volume : volumes) {
    questions.push_back(quota_probe_.put({volume.target, mountAt(volume.target), user},
                                         [path = volume.target, user] { return quotaUsage(path, user); }));
  }
  bool any_answered = false;
  std::vector<std::string> over;
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const std::optional<QuotaUsage> usage = quota_probe_.answerTo(questions[i]);
    any_answered |= usage.has_value();
    if (usage && isOverQuota(*usage)) over.push_back(volumes[i].target);
  }
  if (!any_answered) return std::nullopt;
  return over;
}

}  // namespace kelvane
