#pragma once

// What is decided about one volume each time it has been looked at: when to look again, and whether to call
// for space now. Nothing here asks the time, measures or calls; the same looks give the same decisions.
//
// When to look again. A writer is to be noticed soon after it has passed a limit, and an idle volume is to
// cost next to nothing. The next look comes when a writer twice as fast as any seen lately, and not slower
// than a fixed rate, would have reached the next limit: half way there, a quarter, an eighth. The fixed rate
// is that at which a program can take space in one go, by reserving it in memory: room that is there at one
// look may be gone a moment later, and a slow writer take the rest before the next one. A volume that
// has not changed for a while is left alone for an eighth of that while, so that a small one, of which the
// fixed rate could fill all at any moment, settles down as well. All of it stays between `soonest` and
// `latest`, which is less for a volume that is low.
//
// When to call. On entering low, on entering very low, and again as long as the volume stays low: at once
// when the last purge freed something; otherwise that purge was futile, and the next one waits for a second,
// then for twice as long each time, up to five minutes. When space falls meanwhile, somebody is writing, and
// the wait is cut back to the first second since the last purge. So a volume that nothing can help costs one
// call a second while it is being filled, and a trickle when not.
//
// Whether a purge freed something is taken from the volume, as far as that can tell: if it has more space
// than before, what services reported is believed; if it has just as much, it is not; if it has less, a
// writer may have been faster than the purge, and the reports are believed some times in a row but not for
// ever.

#include <cstdint>
#include <optional>

#include "support/space_level.h"

namespace kelvane {

/// Not thread-safe. Times are nanoseconds of one monotonic clock.
class VolumeWatch {
 public:
  static constexpr std::uint64_t soonest = 5'000'000;
  static constexpr std::uint64_t latest = 10'000'000'000;
  static constexpr std::uint64_t latest_when_low = 1'000'000'000;
  static constexpr std::uint64_t first_wait = 1'000'000'000;
  static constexpr std::uint64_t longest_wait = 300'000'000'000;
  static constexpr double least_bytes_per_second = 4e9;
  static constexpr double least_files_per_second = 2e5;
  static constexpr int believed_in_a_row = 16;

  explicit VolumeWatch(const SpaceThresholds& thresholds) : thresholds_(thresholds) {}

  struct Decision {
    std::uint64_t look_again_at;
    bool call;
  };
  /// The looks of one volume, in order of time.
  [[nodiscard]] Decision look(std::uint64_t now, const VolumeSpace& space, SpaceLevel level);

  /// A purge of the volumes that are low begins, whichever was called for; no other is called for until it
  /// has ended. The volume is to be looked at once more right after.
  void purgeBegan();
  void purgeEnded(std::uint64_t now, std::uint64_t bytes_reported);

 private:
  void measureRate(std::uint64_t now, const VolumeSpace& space);
  void judgePurge(const VolumeSpace& space);
  [[nodiscard]] bool isFutile(const VolumeSpace& space);
  [[nodiscard]] std::uint64_t nextLook(std::uint64_t now, const VolumeSpace& space, SpaceLevel level) const;

  const SpaceThresholds thresholds_;

  std::optional<VolumeSpace> last_;  // nothing before the first look
  std::uint64_t last_look_at_ = 0;
  std::uint64_t changed_at_ = 0;
  double bytes_per_second_ = 0;
  double files_per_second_ = 0;

  SpaceLevel called_for_ = SpaceLevel::plenty;  // the level that was called for and not yet left
  bool purging_ = false;
  std::optional<VolumeSpace> before_purge_;      // of the purge under way, or that is still to be judged
  std::optional<std::uint64_t> bytes_reported_;  // of the purge that is still to be judged
  std::uint64_t purge_ended_at_ = 0;
  std::uint64_t wait_ = 0;
  std::uint64_t call_again_at_ = 0;
  int believed_ = 0;
};

}  // namespace kelvane
