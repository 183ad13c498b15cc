#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/result.h"
#include "support/space_level.h"
#include "tools/options.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct VolumeStatus {
  std::string path;
  std::optional<VolumeSpace> space;  // nothing when the volume does not answer
  SpaceLevel level = SpaceLevel::plenty;
  std::optional<std::int64_t> change = {};  // bytes free since an earlier look, where there was one
};

struct Status {
  std::string socket;
  std::optional<client::Error> unreachable;   // nothing when the daemon answers
  std::optional<std::uint64_t> transactions;  // nothing when it may not be asked
  SpaceThresholds thresholds;
  bool thresholds_are_the_daemons = false;  // or else those of this process
  std::vector<VolumeStatus> volumes;
};

/// Looks at the daemon and the volumes. A daemon that says nothing is given up after `patience`; its
/// thresholds are then those of an earlier look, where there was one.
[[nodiscard]] Status gatherStatus(const Options& options, std::chrono::seconds patience,
                                  const Status* earlier = nullptr);
[[nodiscard]] std::string statusScreen(const Status& status, const Screen& screen);
[[nodiscard]] Value statusValue(const Status& status);

/// The daemon's part of the screen: one line, or two.
[[nodiscard]] std::string daemonScreen(const Status& status, const Screen& screen);
/// The local volumes as they are now.
[[nodiscard]] std::vector<VolumeStatus> lookAtVolumes();
/// One or two lines for each; with what changed, where that is wanted.
enum class Changes : bool { hidden, shown };
[[nodiscard]] std::string volumesScreen(const std::vector<VolumeStatus>& volumes,
                                        const SpaceThresholds& thresholds, const Screen& screen,
                                        Changes changes = Changes::hidden);

/// "+1.5 GiB", coloured, `change_width` wide; blank where nothing changed.
inline constexpr std::size_t change_width = 11;
[[nodiscard]] std::string changeText(const std::optional<std::int64_t>& bytes, const Screen& screen);

/// The thresholds that the daemon on this socket was started with, where this user may know them.
[[nodiscard]] std::optional<SpaceThresholds> daemonsThresholds(const std::string& socket);

}  // namespace kelvane::tools
