#include "support/space_level.h"

#include <algorithm>

namespace kelvane {
namespace {

bool isBelow(const VolumeSpace& space, const SpaceLimit& limit, double factor) {
  const double bytes = std::min(limit.of_bytes_total * static_cast<double>(space.bytes_total),
                                static_cast<double>(limit.bytes));
  const double files = limit.of_files_total * static_cast<double>(space.files_total);
  return static_cast<double>(space.bytes_free) < bytes * factor ||
         static_cast<double>(space.files_free) < files * factor;
}

}  // namespace

SpaceLevel spaceLevel(const VolumeSpace& space, SpaceLevel before, const SpaceThresholds& thresholds) {
  const double keep_very_low = before == SpaceLevel::very_low ? thresholds.clear : 1;
  const double keep_low = before != SpaceLevel::plenty ? thresholds.clear : 1;
  if (isBelow(space, thresholds.very_low, keep_very_low)) return SpaceLevel::very_low;
  return isBelow(space, thresholds.low, keep_low) ? SpaceLevel::low : SpaceLevel::plenty;
}

}  // namespace kelvane
