#pragma once

// Decides about one volume, each time it has been sampled, when to sample it again and whether to call for
// space now. It never reads a clock, measures or calls; the same samples give the same decisions.
//
// When to sample. A writer must be noticed soon after it passes a limit, and an idle volume must cost next
// to nothing. The next sample is due when a writer twice as fast as any seen recently, and at least as
// fast as a fixed rate, would have reached the next limit: half way there, then a quarter, then an eighth.
// The fixed rate is that of a program that reserves space in memory in one go: free space can vanish right
// after one sample, and a slow writer can take the rest before the next. A volume that has not changed for
// some time is left alone for an eighth of that time. So a small volume, which the fixed rate could fill
// at any moment, is also sampled rarely when idle. The interval stays between `soonest` and `latest`,
// which is shorter for a volume that is low.
//
// When to call. On entering low, on entering very low, and repeatedly while the volume stays low: at once if
// the last purge freed something. Otherwise that purge was futile: the next one waits for a second, then
// twice as long each time, up to five minutes. If free space falls in the meantime, the wait is cut to one
// second after the last purge. So a volume on which purges free nothing costs one call a second while it is
// being filled, and few calls otherwise.
//
// Whether a purge freed something is judged by the volume as far as possible. If it has more
// space than before, the services' reports are believed; if it has the same, they are not. If it
// has less, a writer may have been faster than the purge, so the reports are believed, but only
// a limited number of times in a row.

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
  /// Takes one sample of the volume. Samples come in order of time.
  [[nodiscard]] Decision look(std::uint64_t now, const VolumeSpace& space, SpaceLevel level);

  /// A purge of the low volumes begins, whichever volume called for it; no other is called for until it has
  /// ended. The volume must be sampled once more right after.
  void purgeBegan();
  void purgeEnded(std::uint64_t now, std::uint64_t bytes_reported);

 private:
  void measureRate(std::uint64_t now, const VolumeSpace& space);
  void judgePurge(const VolumeSpace& space);
  [[nodiscard]] bool isFutile(const VolumeSpace& space);
  [[nodiscard]] std::uint64_t nextLook(std::uint64_t now, const VolumeSpace& space, SpaceLevel level) const;

  const SpaceThresholds thresholds_;

  std::optional<VolumeSpace> last_;  // nothing before the first sample
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
