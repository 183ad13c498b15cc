#include "support/space_level.h"

#include <algorithm>
#include <limits>

namespace kelvane {
namespace {

double bytesOf(const SpaceLimit& limit, const VolumeSpace& space) {
  return std::min(limit.of_bytes_total * static_cast<double>(space.bytes_total),
                  static_cast<double>(limit.bytes));
}

double filesOf(const SpaceLimit& limit, const VolumeSpace& space) {
  return limit.of_files_total * static_cast<double>(space.files_total);
}

bool isBelow(const VolumeSpace& space, const SpaceLimit& limit, double factor) {
  return static_cast<double>(space.bytes_free) < bytesOf(limit, space) * factor ||
         static_cast<double>(space.files_free) < filesOf(limit, space) * factor;
}

double room(std::uint64_t total, std::uint64_t free, double limit) {
  if (total == 0) return std::numeric_limits<double>::infinity();
  return std::max(0.0, static_cast<double>(free) - limit);
}

}  // namespace

SpaceLevel spaceLevel(const VolumeSpace& space, SpaceLevel before, const SpaceThresholds& thresholds) {
  const double keep_very_low = before == SpaceLevel::very_low ? thresholds.clear : 1;
  const double keep_low = before != SpaceLevel::plenty ? thresholds.clear : 1;
  if (isBelow(space, thresholds.very_low, keep_very_low)) return SpaceLevel::very_low;
  return isBelow(space, thresholds.low, keep_low) ? SpaceLevel::low : SpaceLevel::plenty;
}

SpaceRoom roomAbove(const VolumeSpace& space, const SpaceLimit& limit) {
  return {room(space.bytes_total, space.bytes_free, bytesOf(limit, space)),
          room(space.files_total, space.files_free, filesOf(limit, space))};
}

}  // namespace kelvane
