#pragma once

// The system's mount table, free space and quotas. Any thread.
//
// Only file systems that answer from the kernel's memory (answersAtOnce) are asked directly. All others are
// asked by a probe, several at the same time, for at most half a second. The mount at a path is looked up
// again just before, without waiting, so that a file system mounted there after the table was read is not
// mistaken for the earlier one.

#include <set>

#include "support/mount_table.h"
#include "support/quota.h"
#include "support/volume_probe.h"
#include "support/volumes.h"

namespace kelvane {

class SystemVolumes final : public VolumeSource {
 public:
  [[nodiscard]] std::vector<MountEntry> mounts() override;
  [[nodiscard]] std::uint64_t mountsGeneration() override { return watch_.generation(); }
  [[nodiscard]] std::optional<VolumeSpace> space(const std::string& path) override;
  [[nodiscard]] std::vector<std::optional<VolumeSpace>> spaces(
      const std::vector<std::string>& paths) override;
  [[nodiscard]] std::optional<std::vector<std::string>> overQuota(uid_t user) override;

 private:
  class SpaceQuestion;
  [[nodiscard]] std::vector<MountEntry> readTable();
  [[nodiscard]] bool answersAtOnce(std::uint64_t open_mount);

  MountTableWatch watch_;
  VolumeProbe<VolumeSpace> space_probe_{"volumeFreespace"};
  VolumeProbe<QuotaUsage> quota_probe_{"quotaVolumes"};
  std::mutex mutex_;                     // guards all below
  std::uint64_t prompt_generation_ = 0;  // of the table in which these were; 0: none
  std::set<std::uint64_t> prompt_;       // IDs of the mounts that answer at once
};

}  // namespace kelvane
