#pragma once

// Volumes. A volume is a mount point, named by its path. Which mounts count as local volumes is in
// local_volumes.h, when one is low in space_level.h. Any thread.

#include <sys/types.h>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/value.h"

namespace kelvane {

/// Available to an ordinary user; `files` are inodes, 0 total where the file system does not count them.
struct VolumeSpace {
  std::uint64_t bytes_free = 0;
  std::uint64_t bytes_total = 0;
  std::uint64_t files_free = 0;
  std::uint64_t files_total = 0;
};

struct MountEntry {
  std::string source;  // e.g. /dev/sda1
  std::string root;    // the part of the file system that is mounted
  std::string target;  // the mount point
  std::string type;    // e.g. ext4
  std::string device;  // "major:minor"
  bool writable = false;
  std::uint64_t id = 0;  // the kernel's mount ID, as in statx; 0: unknown
};

/// The one seam to the system's mount table, free space and quotas. Tests install their own. All members are
/// called on any thread.
class VolumeSource {
 public:
  virtual ~VolumeSource() = default;
  [[nodiscard]] virtual std::vector<MountEntry> mounts() = 0;
  /// A number that is another one whenever `mounts` may answer differently than before; cheap to ask. 0 says
  /// that nobody knows: `mounts` is then asked each time.
  [[nodiscard]] virtual std::uint64_t mountsGeneration() { return 0; }
  /// Nothing when the volume cannot be asked, or does not answer within half a second.
  [[nodiscard]] virtual std::optional<VolumeSpace> space(const std::string& path) = 0;
  /// The same for several volumes, asked at the same time: half a second for all of them together.
  [[nodiscard]] virtual std::vector<std::optional<VolumeSpace>> spaces(const std::vector<std::string>& paths);
  /// Volumes on which the user is over quota; nothing when quotas cannot be asked.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> overQuota(uid_t user) = 0;

  static VolumeSource& current();
  /// Null puts the system's own back. The source must outlive its use.
  static void install(VolumeSource* source);
};

/// When volumes count as low, for the whole process: the defaults until this was called. Before anybody asks.
struct SpaceThresholds;
enum class SpaceLevel : std::uint8_t;
void setSpaceThresholds(const SpaceThresholds& thresholds);
[[nodiscard]] const SpaceThresholds& spaceThresholds();

/// The local volumes, in the order of the mount table.
[[nodiscard]] std::vector<std::string> getLocalVolumes();
/// What a volume has, and whether that is low. A volume that was found low stays so until it is clear by a
/// margin, so the level depends on earlier looks, whoever took them.
struct VolumeLook {
  VolumeSpace space;
  SpaceLevel level;
};
/// Nothing when the volume cannot be asked or does not answer. Waits for an answer for half a second at most.
[[nodiscard]] std::optional<VolumeLook> lookAtVolume(const std::string& volume);
/// The local volumes that are low on space, without those that do not answer. Waits at most half a second for
/// all of them together.
[[nodiscard]] std::optional<std::vector<std::string>> lowSpaceVolumes();
/// Those on which the user is over quota; nothing when quotas cannot be asked on any.
[[nodiscard]] std::optional<std::vector<std::string>> quotaVolumes(uid_t user);
/// True when the info's KELVANE_VOLUME is the path of a local volume. Paths are compared by their components:
/// doubled and trailing slashes do not count. Symbolic links, "." and ".." are not followed, since whoever
/// asks may be able to change where they lead. Costs one poll of the mount table while that does not change.
[[nodiscard]] bool validateVolume(const Dictionary& info);
/// Bytes available to an ordinary user; 0 when the volume cannot be asked.
[[nodiscard]] std::uint64_t volumeFreespace(const std::string& volume);
/// The same for several volumes, in their order; waits for all of them together for half a second at most.
[[nodiscard]] std::vector<std::uint64_t> volumeFreespaces(const std::vector<std::string>& volumes);

}  // namespace kelvane
