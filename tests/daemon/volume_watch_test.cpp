// When a volume is looked at again and when space is called for, decided from made-up looks.

#include "daemon/volume_watch.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kelvane {
namespace {

constexpr std::uint64_t ms = 1'000'000;
constexpr std::uint64_t second = 1000 * ms;
constexpr std::uint64_t MiB = 1ULL << 20;
constexpr std::uint64_t GiB = 1ULL << 30;
constexpr std::uint64_t start = 1000 * second;

/// Of a TiB: low below 2 GiB, very low below 1. Of a million inodes, or of none that are counted.
VolumeSpace with(std::uint64_t bytes_free, std::uint64_t files_free = 0) {
  return {bytes_free, 1024 * GiB, files_free, files_free == 0 ? 0U : 1'000'000U};
}

/// A volume that is told how much it has and when; its level follows as a real one's does.
class Watched {
 public:
  VolumeWatch::Decision look(std::uint64_t now, const VolumeSpace& space) {
    level_ = spaceLevel(space, level_, thresholds_);
    return watch_.look(now, space, level_);
  }
  bool callsAt(std::uint64_t now, const VolumeSpace& space) { return look(now, space).call; }
  std::uint64_t looksAgainAfter(std::uint64_t now, const VolumeSpace& space) {
    return look(now, space).look_again_at - now;
  }
  /// A purge that took no time.
  void purge(std::uint64_t now, std::uint64_t reported) {
    watch_.purgeBegan();
    watch_.purgeEnded(now, reported);
  }
  VolumeWatch* operator->() { return &watch_; }

 private:
  SpaceThresholds thresholds_;
  SpaceLevel level_ = SpaceLevel::plenty;
  VolumeWatch watch_{thresholds_};
};

struct Pace {
  const char* what;
  std::uint64_t bytes_before, bytes_now, files_before, files_now, elapsed, expected;
};

class LookAgain : public testing::TestWithParam<Pace> {};

TEST_P(LookAgain, WhenAWriterCouldHaveReachedTheNextLimit) {
  const Pace& pace = GetParam();
  Watched volume;
  volume.look(start, with(pace.bytes_before, pace.files_before));
  EXPECT_EQ(volume.looksAgainAfter(start + pace.elapsed, with(pace.bytes_now, pace.files_now)), pace.expected)
      << pace.what;
}

/// So many bytes above the limit of 2 GiB.
constexpr std::uint64_t above(std::uint64_t bytes) { return 2 * GiB + bytes; }
constexpr std::uint64_t G = 1'000'000'000;
constexpr std::uint64_t files = 0;  // not counted

INSTANTIATE_TEST_SUITE_P(
    VolumeWatch, LookAgain,
    testing::Values(
        Pace{"idle, far away: the latest", above(100 * G), above(100 * G), files, files, 1, 10 * second},
        Pace{"idle: the room by the fixed rate", above(12 * G), above(12 * G), files, files, 1, 3 * second},
        Pace{"slow: the fixed rate is the worse", above(13 * G), above(12 * G), files, files, 10 * second,
             3 * second},
        Pace{"fast: twice the rate seen", above(16 * G), above(8 * G), files, files, second, 500 * ms},
        Pace{"at the limit's door: the soonest", above(G), above(1000), files, files, second, 5 * ms},
        Pace{"inodes by their fixed rate", above(100 * G), above(100 * G), 250'000, 250'000, 1, second},
        Pace{"inodes by twice the rate seen", above(100 * G), above(100 * G), 650'000, 250'000, second,
             250 * ms},
        Pace{"low: the limit is that of very low", GiB + G, GiB + G / 2, files, files, 10 * second, 125 * ms},
        Pace{"low and idle: the latest of low ones", 2 * GiB - 1, 2 * GiB - 1, files, files, 10 * second,
             second},
        Pace{"very low: what is left", G, G / 2, files, files, 10 * second, 125 * ms}));

TEST(VolumeWatch, FollowsAFasterWriterAtOnceAndASlowerOneByHalves) {
  Watched volume;
  volume.look(start, with(above(48 * G)));
  EXPECT_EQ(volume.looksAgainAfter(start + second, with(above(32 * G))), second);          // 16 GB/s
  EXPECT_EQ(volume.looksAgainAfter(start + 2 * second, with(above(32 * G))), 2 * second);  // as if 8 GB/s
  EXPECT_EQ(volume.looksAgainAfter(start + 3 * second, with(above(32 * G))), 4 * second);  // as if 4 GB/s
  EXPECT_EQ(volume.looksAgainAfter(start + 4 * second, with(above(32 * G))), 8 * second);  // the fixed rate
}

TEST(VolumeWatch, LeavesAVolumeThatDoesNotChangeAloneForAnEighthOfThatTime) {
  Watched volume;
  const VolumeSpace space = with(above(4 * G / 10));
  EXPECT_EQ(volume.looksAgainAfter(start, space), 100 * ms);
  EXPECT_EQ(volume.looksAgainAfter(start + second, space), 125 * ms);
  EXPECT_EQ(volume.looksAgainAfter(start + 40 * second, space), 5 * second);
  EXPECT_EQ(volume.looksAgainAfter(start + 1000 * second, space), 10 * second);
  EXPECT_EQ(volume.looksAgainAfter(start + 1001 * second, with(above(4 * G / 10 - 4096))), 100 * ms - 1024);
}

TEST(VolumeWatch, AVolumeThatFillsAtHalfAGigabyteASecondIsLookedAtSomeDozenTimesOnTheWayToTheLimit) {
  Watched volume;
  std::uint64_t now = start;
  std::uint64_t free = above(10 * G);
  constexpr std::uint64_t bytes_per_ms = 500'000;
  int looks = 0;
  VolumeWatch::Decision decision = volume.look(now, with(free));
  while (!decision.call) {
    const std::uint64_t wait = decision.look_again_at - now;
    now += wait;
    free -= wait / ms * bytes_per_ms;
    decision = volume.look(now, with(free));
    ASSERT_LT(++looks, 100);
  }
  EXPECT_LE(2 * GiB - free, 5 * bytes_per_ms);  // seen within the soonest look
  EXPECT_LE(looks, 60);
}

TEST(VolumeWatch, CallsOnEnteringLowAndAgainOnEnteringVeryLow) {
  Watched volume;
  EXPECT_FALSE(volume.callsAt(start, with(3 * GiB)));
  EXPECT_TRUE(volume.callsAt(start + second, with(2 * GiB - 1)));
  volume.purge(start + second, 0);
  EXPECT_FALSE(volume.callsAt(start + second, with(2 * GiB - 1)));
  EXPECT_TRUE(volume.callsAt(start + second + ms, with(GiB - 1)));
}

TEST(VolumeWatch, CallsAtOnceForAVolumeThatIsLowWhenItIsFirstSeen) {
  EXPECT_TRUE(Watched().callsAt(start, with(GiB)));
}

TEST(VolumeWatch, CallsForNothingWhileAPurgeIsUnderWayAndForWhatWasEnteredMeanwhileWhenItHasEnded) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(2 * GiB - 1)));
  volume->purgeBegan();
  EXPECT_FALSE(volume.callsAt(start + second, with(GiB - 1)));
  EXPECT_FALSE(volume.callsAt(start + 1000 * second, with(GiB - 2)));
  volume->purgeEnded(start + 1000 * second, 0);
  EXPECT_TRUE(volume.callsAt(start + 1000 * second, with(GiB - 2)));
}

TEST(VolumeWatch, CallsAgainAtOnceAsLongAsPurgesFreeSomethingAndTheVolumeStaysLow) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(GiB + 100 * MiB)));
  for (std::uint64_t i = 1; i <= 5; ++i) {
    volume.purge(start, 100 * MiB);
    EXPECT_TRUE(volume.callsAt(start, with(GiB + 100 * MiB + i * 250 * MiB))) << i;
  }
  volume.purge(start, 100 * MiB);
  EXPECT_FALSE(volume.callsAt(start, with(2 * GiB + 600 * MiB)));
}

TEST(VolumeWatch, AfterAFutilePurgeTheNextComesAfterASecondThenTwiceAsLateUpToFiveMinutes) {
  Watched volume;
  const VolumeSpace space = with(GiB + MiB);
  std::uint64_t now = start;
  ASSERT_TRUE(volume.callsAt(now, space));
  for (const std::uint64_t wait : {1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300}) {
    volume.purge(now, 0);
    EXPECT_FALSE(volume.callsAt(now, space)) << wait;
    EXPECT_FALSE(volume.callsAt(now + wait * second - 1, space)) << wait;
    now += wait * second;
    EXPECT_TRUE(volume.callsAt(now, space)) << wait;
  }
}

TEST(VolumeWatch, LooksAgainNoLaterThanItMayCallAgain) {
  Watched volume;
  const VolumeSpace space = with(2 * GiB - 1);
  ASSERT_TRUE(volume.callsAt(start, space));
  volume.purge(start, 0);
  static_cast<void>(volume.look(start + 700 * ms, space));
  EXPECT_EQ(volume.look(start + 800 * ms, space).look_again_at, start + second);
}

TEST(VolumeWatch, AFallOfFreeSpaceCutsTheWaitAtOnce) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(GiB + MiB)));
  std::uint64_t now = start;
  for (const std::uint64_t wait : {1, 2, 4, 8, 16}) {
    volume.purge(now, 0);
    ASSERT_FALSE(volume.callsAt(now, with(GiB + MiB)));
    now += wait * second;
    ASSERT_TRUE(volume.callsAt(now, with(GiB + MiB)));
  }
  volume.purge(now, 0);
  ASSERT_FALSE(volume.callsAt(now, with(GiB + MiB)));
  EXPECT_FALSE(volume.callsAt(now + 2 * second, with(GiB + MiB)));
  EXPECT_TRUE(volume.callsAt(now + 3 * second, with(GiB + MiB - 1)));
  volume.purge(now + 3 * second, 0);
  EXPECT_FALSE(volume.callsAt(now + 3 * second, with(GiB + MiB - 1)));
  EXPECT_TRUE(volume.callsAt(now + 4 * second, with(GiB + MiB - 1)));  // the waits begin anew
}

TEST(VolumeWatch, AFallOfFreeInodesCutsTheWaitAsWell) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(8 * GiB, 40'000)));
  volume.purge(start, 0);
  ASSERT_FALSE(volume.callsAt(start, with(8 * GiB, 40'000)));
  ASSERT_TRUE(volume.callsAt(start + second, with(8 * GiB, 40'000)));
  volume.purge(start + second, 0);
  ASSERT_FALSE(volume.callsAt(start + second, with(8 * GiB, 40'000)));
  EXPECT_TRUE(volume.callsAt(start + 2 * second, with(8 * GiB, 39'999)));
}

TEST(VolumeWatch, AVolumeThatIsBeingFilledInVainCostsOneCallASecond) {
  Watched volume;
  std::uint64_t free = GiB - 1;
  int calls = 0;
  for (std::uint64_t now = start; now < start + 60 * second; now += 5 * ms) {
    if (!volume.callsAt(now, with(--free))) continue;
    ++calls;
    volume.purge(now, 0);
    ASSERT_FALSE(volume.callsAt(now, with(free)));
  }
  EXPECT_EQ(calls, 60);
}

TEST(VolumeWatch, APurgeThatReportedBytesAndLeftFreeSpaceAsItWasIsFutile) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(GiB)));
  volume.purge(start, 250 * MiB);
  EXPECT_FALSE(volume.callsAt(start, with(GiB)));
}

TEST(VolumeWatch, APurgeThatAWriterOutranIsBelievedSomeTimesAndNotForEver) {
  Watched volume;
  std::uint64_t free = GiB;
  ASSERT_TRUE(volume.callsAt(start, with(free)));
  volume.purge(start, 0);
  ASSERT_TRUE(volume.callsAt(start, with(free -= MiB)));  // very low
  for (int i = 0; i < VolumeWatch::believed_in_a_row; ++i) {
    volume.purge(start, 250 * MiB);
    EXPECT_TRUE(volume.callsAt(start, with(free -= MiB))) << i;
  }
  volume.purge(start, 250 * MiB);
  EXPECT_FALSE(volume.callsAt(start, with(free -= MiB)));
  EXPECT_TRUE(volume.callsAt(start + second, with(free)));
}

TEST(VolumeWatch, AVolumeThatWasClearMeanwhileIsCalledForAsAtFirst) {
  Watched volume;
  ASSERT_TRUE(volume.callsAt(start, with(2 * GiB - 1)));
  volume.purge(start, 0);
  ASSERT_FALSE(volume.callsAt(start, with(2 * GiB - 1)));
  EXPECT_FALSE(volume.callsAt(start + ms, with(3 * GiB)));
  EXPECT_TRUE(volume.callsAt(start + 2 * ms, with(2 * GiB - 1)));
}

TEST(VolumeWatch, APurgeOfAVolumeThatWasNeverLookedAtBeforeFreedNothingThatCouldBeSeen) {
  Watched volume;
  volume->purgeBegan();
  EXPECT_FALSE(volume.callsAt(start, with(3 * GiB)));
  volume->purgeEnded(start, MiB);
  EXPECT_TRUE(volume.callsAt(start, with(GiB)));
}

}  // namespace
}  // namespace kelvane
