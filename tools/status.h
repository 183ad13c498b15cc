#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/result.h"
#include "support/space_level.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct VolumeStatus {
  std::string path;
  std::optional<VolumeSpace> space;  // nothing when the volume does not answer
  SpaceLevel level = SpaceLevel::plenty;
};

struct Status {
  std::string socket;
  std::optional<client::Error> unreachable;   // nothing when the daemon answers
  std::optional<std::uint64_t> transactions;  // nothing when it may not be asked
  SpaceThresholds thresholds;
  bool thresholds_are_the_daemons = false;  // or else those of this process
  std::vector<VolumeStatus> volumes;
};

[[nodiscard]] std::string statusScreen(const Status& status, const Screen& screen);
[[nodiscard]] Value statusValue(const Status& status);

/// The local volumes as they are now.
[[nodiscard]] std::vector<VolumeStatus> lookAtVolumes();
/// One or two lines for each.
[[nodiscard]] std::string volumesScreen(const std::vector<VolumeStatus>& volumes,
                                        const SpaceThresholds& thresholds, const Screen& screen);

/// The thresholds that the daemon on this socket was started with, where this user may know them.
[[nodiscard]] std::optional<SpaceThresholds> daemonsThresholds(const std::string& socket);

}  // namespace kelvane::tools
