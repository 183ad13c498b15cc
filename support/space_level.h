#pragma once

// When a volume is low on space.

#include <cstdint>

#include "support/volumes.h"

namespace kelvane {

enum class SpaceLevel : std::uint8_t { plenty, low, very_low };

/// Reached when less than the smaller of the two amounts of bytes is available, or less than that part of the
/// inodes.
struct SpaceLimit {
  double of_bytes_total;
  std::uint64_t bytes;
  double of_files_total;
  bool operator==(const SpaceLimit&) const = default;
};

struct SpaceThresholds {
  SpaceLimit low{0.10, std::uint64_t{2} << 30, 0.05};
  SpaceLimit very_low{0.05, std::uint64_t{1} << 30, 0.02};
  /// A limit once reached is left at so many times itself, so that a volume at its limit does not come and
  /// go.
  double clear = 1.25;
  bool operator==(const SpaceThresholds&) const = default;
};

/// The level of a volume that was at `before`. A file system that does not count its bytes, or its inodes, is
/// not low on them.
[[nodiscard]] SpaceLevel spaceLevel(const VolumeSpace& space, SpaceLevel before,
                                    const SpaceThresholds& thresholds = {});

/// How much can be written before the limit is reached, 0 when it is; infinite where the file system does not
/// count.
struct SpaceRoom {
  double bytes;
  double files;
};
[[nodiscard]] SpaceRoom roomAbove(const VolumeSpace& space, const SpaceLimit& limit);

}  // namespace kelvane
