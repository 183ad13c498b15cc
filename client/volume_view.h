#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "support/volumes.h"

namespace kelvane::client {

/// The mount table at one moment, and look-ups in it. Constant after construction.
///
/// A descriptor is looked up by the kernel's ID of its mount, so renaming cannot change the answer. Only the
/// system's table has that ID: a table that a test installs is searched by path.
class VolumeView {
 public:
  VolumeView() : mounts_(VolumeSource::current().mounts()) {}

  /// The mount of an open descriptor; null when it is not in the table.
  [[nodiscard]] const MountEntry* holderOf(int descriptor) const;
  /// The deepest mount at or above an absolute path, by its name only.
  [[nodiscard]] const MountEntry* holderByName(const std::string& path) const;
  /// The mount point under which the daemon knows the volume; null when it serves none of that device.
  [[nodiscard]] std::optional<std::string> volumeOf(const MountEntry& holder) const;
  /// Whether the mount has the device of the volume.
  [[nodiscard]] bool isOn(const MountEntry& holder, const std::string& volume) const;
  /// Whether opening the path could wait for a program or a server, or trigger an automount.
  [[nodiscard]] bool mayNotAnswer(const std::string& path) const;

 private:
  [[nodiscard]] const MountEntry* holderByDevice(const std::string& device) const;

  const std::vector<MountEntry> mounts_;
};

/// Opens an absolute path with O_PATH, unless it leads through a link or may not answer. The reason is in
/// errno.
[[nodiscard]] FileDescriptor openPlainly(const VolumeView& view, const std::string& path);

}  // namespace kelvane::client
