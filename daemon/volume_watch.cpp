#include "daemon/volume_watch.h"

#include <algorithm>

namespace kelvane {
namespace {

constexpr double nanoseconds = 1e9;  // in a second

const SpaceLimit nothing_left{0, 0, 0};

/// The limit that comes next for a volume of that level.
const SpaceLimit& nextLimit(const SpaceThresholds& thresholds, SpaceLevel level) {
  if (level == SpaceLevel::plenty) return thresholds.low;
  return level == SpaceLevel::low ? thresholds.very_low : nothing_left;
}

/// Whether somebody has written between the two.
bool isFilled(const VolumeSpace& before, const VolumeSpace& after) {
  return after.bytes_free < before.bytes_free || after.files_free < before.files_free;
}

double used(std::uint64_t before, std::uint64_t after) {
  return before > after ? static_cast<double>(before - after) : 0;
}

/// Follows a faster rate at once and a slower one by halves.
double followed(double rate, double seen) { return seen >= rate ? seen : (rate + seen) / 2; }

}  // namespace

VolumeWatch::Decision VolumeWatch::look(std::uint64_t now, const VolumeSpace& space, SpaceLevel level) {
  measureRate(now, space);
  if (bytes_reported_) {
    judgePurge(space);
  } else if (!purging_ && wait_ != 0 && isFilled(*last_, space)) {
    call_again_at_ = std::min(call_again_at_, purge_ended_at_ + first_wait);
    wait_ = 0;
  }
  last_ = space;
  last_look_at_ = now;
  called_for_ = std::min(called_for_, level);
  if (level == SpaceLevel::plenty) {
    wait_ = 0;
    believed_ = 0;
    return {nextLook(now, space, level), false};
  }
  const bool call = !purging_ && (level > called_for_ || now >= call_again_at_);
  if (call) called_for_ = level;
  return {nextLook(now, space, level), call};
}

void VolumeWatch::purgeBegan() {
  purging_ = true;
  bytes_reported_.reset();
  before_purge_ = last_;
}

void VolumeWatch::purgeEnded(std::uint64_t now, std::uint64_t bytes_reported) {
  purging_ = false;
  purge_ended_at_ = now;
  bytes_reported_ = bytes_reported;
}

void VolumeWatch::measureRate(std::uint64_t now, const VolumeSpace& space) {
  if (!last_) {
    changed_at_ = now;
    return;
  }
  if (space.bytes_free != last_->bytes_free || space.files_free != last_->files_free) changed_at_ = now;
  if (now <= last_look_at_) return;
  const double seconds = static_cast<double>(now - last_look_at_) / nanoseconds;
  bytes_per_second_ = followed(bytes_per_second_, used(last_->bytes_free, space.bytes_free) / seconds);
  files_per_second_ = followed(files_per_second_, used(last_->files_free, space.files_free) / seconds);
}

void VolumeWatch::judgePurge(const VolumeSpace& space) {
  if (!isFutile(space)) {
    wait_ = 0;
  } else if (wait_ == 0 || (before_purge_ && isFilled(*before_purge_, space))) {
    wait_ = first_wait;
  } else {
    wait_ = std::min(2 * wait_, longest_wait);
  }
  call_again_at_ = purge_ended_at_ + wait_;
  bytes_reported_.reset();
  before_purge_.reset();
}

bool VolumeWatch::isFutile(const VolumeSpace& space) {
  if (*bytes_reported_ == 0 || !before_purge_) return true;
  if (isFilled(space, *before_purge_)) {  // the other way round: it has more than before
    believed_ = 0;
    return false;
  }
  return !isFilled(*before_purge_, space) || ++believed_ > believed_in_a_row;
}

std::uint64_t VolumeWatch::nextLook(std::uint64_t now, const VolumeSpace& space, SpaceLevel level) const {
  const SpaceRoom room = roomAbove(space, nextLimit(thresholds_, level));
  const double seconds = std::min(room.bytes / std::max(2 * bytes_per_second_, least_bytes_per_second),
                                  room.files / std::max(2 * files_per_second_, least_files_per_second));
  const auto to_limit =
      static_cast<std::uint64_t>(std::min(seconds * nanoseconds, static_cast<double>(latest)));
  const std::uint64_t quiet = (now - changed_at_) / 8;
  const bool is_low = level != SpaceLevel::plenty;
  std::uint64_t next =
      now + std::clamp(std::max(to_limit, quiet), soonest, is_low ? latest_when_low : latest);
  if (is_low && !purging_ && call_again_at_ > now) next = std::min(next, call_again_at_);
  return next;
}

}  // namespace kelvane
