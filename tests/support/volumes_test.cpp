#include "support/volumes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/keys.h"
#include "support/quota.h"
#include "support/space_level.h"
#include "tests/support/fake_volumes.h"

namespace kelvane::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr std::uint64_t MiB = 1ULL << 20;
constexpr std::uint64_t GiB = 1ULL << 30;

/// So many bytes available of 1 GiB: low below 102.4 MiB, very low below 51.2.
VolumeSpace ofOneGiB(std::uint64_t bytes_free) { return {bytes_free, GiB, 1000, 1000}; }
/// So many bytes available of a TiB: low below 2 GiB, very low below 1.
VolumeSpace ofOneTiB(std::uint64_t bytes_free) { return {bytes_free, 1024 * GiB, 1000, 1000}; }
VolumeSpace withFiles(std::uint64_t files_free) { return {GiB, GiB, files_free, 1000}; }

SpaceLevel fresh(const VolumeSpace& space) { return spaceLevel(space, SpaceLevel::plenty); }

TEST(SpaceLevel, ASmallVolumeIsLowBelowTenPercentAndVeryLowBelowFive) {
  EXPECT_EQ(fresh(ofOneGiB(103 * MiB)), SpaceLevel::plenty);
  EXPECT_EQ(fresh(ofOneGiB(102 * MiB)), SpaceLevel::low);
  EXPECT_EQ(fresh(ofOneGiB(52 * MiB)), SpaceLevel::low);
  EXPECT_EQ(fresh(ofOneGiB(51 * MiB)), SpaceLevel::very_low);
}

TEST(SpaceLevel, ALargeVolumeIsLowBelowTwoGiBAndVeryLowBelowOne) {
  EXPECT_EQ(fresh(ofOneTiB(2 * GiB)), SpaceLevel::plenty);
  EXPECT_EQ(fresh(ofOneTiB(2 * GiB - 1)), SpaceLevel::low);
  EXPECT_EQ(fresh(ofOneTiB(GiB)), SpaceLevel::low);
  EXPECT_EQ(fresh(ofOneTiB(GiB - 1)), SpaceLevel::very_low);
}

TEST(SpaceLevel, AVolumeWithoutInodesIsLowAsWell) {
  EXPECT_EQ(fresh(withFiles(50)), SpaceLevel::plenty);
  EXPECT_EQ(fresh(withFiles(49)), SpaceLevel::low);
  EXPECT_EQ(fresh(withFiles(19)), SpaceLevel::very_low);
}

TEST(SpaceLevel, AFileSystemThatDoesNotCountIsNotLow) {
  EXPECT_EQ(fresh({GiB, GiB, 0, 0}), SpaceLevel::plenty);
  EXPECT_EQ(fresh({0, 0, 0, 0}), SpaceLevel::plenty);
}

TEST(SpaceLevel, ALevelIsLeftOnlyWhenAQuarterClear) {
  EXPECT_EQ(spaceLevel(ofOneTiB(2 * GiB), SpaceLevel::low), SpaceLevel::low);
  EXPECT_EQ(spaceLevel(ofOneTiB(5 * GiB / 2 - 1), SpaceLevel::low), SpaceLevel::low);
  EXPECT_EQ(spaceLevel(ofOneTiB(5 * GiB / 2), SpaceLevel::low), SpaceLevel::plenty);
  EXPECT_EQ(spaceLevel(ofOneTiB(5 * GiB / 4 - 1), SpaceLevel::very_low), SpaceLevel::very_low);
  EXPECT_EQ(spaceLevel(ofOneTiB(5 * GiB / 4), SpaceLevel::very_low), SpaceLevel::low);
}

TEST(SpaceLevel, OtherThresholdsCanBeGiven) {
  const SpaceThresholds thresholds{{0.5, 10 * GiB, 0.0}, {0.0, 0, 0.0}, 1};
  EXPECT_EQ(spaceLevel(ofOneGiB(GiB / 2 - 1), SpaceLevel::plenty, thresholds), SpaceLevel::low);
  EXPECT_EQ(spaceLevel(ofOneGiB(GiB / 2), SpaceLevel::low, thresholds), SpaceLevel::plenty);
}

TEST(Quota, IsExceededAboveASoftLimitAndWhereNothingMoreFitsBelowAHardOne) {
  constexpr std::uint64_t KiB = 1024;
  EXPECT_FALSE(isOverQuota({100, 0, 0, 100, 0, 0}));
  EXPECT_FALSE(isOverQuota({100 * KiB, 100 * KiB, 104 * KiB, 0, 0, 0}));
  EXPECT_TRUE(isOverQuota({100 * KiB + 1, 100 * KiB, 200 * KiB, 0, 0, 0}));
  EXPECT_TRUE(isOverQuota({200 * KiB, 0, 200 * KiB, 0, 0, 0}));
  EXPECT_TRUE(isOverQuota({100 * KiB, 0, 101 * KiB, 0, 0, 0}));  // a limit that is no multiple of a block
  EXPECT_TRUE(isOverQuota({0, 0, 0, 11, 10, 0}));
  EXPECT_TRUE(isOverQuota({0, 0, 0, 20, 0, 20}));
}

TEST(Quota, IsNothingWhereNoneAreKept) { EXPECT_FALSE(quotaUsage("/proc", 0)); }

class Volumes : public testing::Test {
 protected:
  static bool validates(const Value& volume) { return validateVolume({{KELVANE_VOLUME, volume}}); }
  FakeVolumes volumes_;
};

TEST_F(Volumes, LocalVolumesAreInTheOrderOfTheMountTable) {
  volumes_.add("/");
  volumes_.add("/data");
  volumes_.add("/a");
  EXPECT_THAT(getLocalVolumes(), ElementsAre("/", "/data", "/a"));
}

TEST_F(Volumes, OfTwoLowVolumesBothAreNamedInTheOrderOfTheMountTable) {
  volumes_.add("/z", ofOneGiB(0));
  volumes_.add("/", ofOneGiB(GiB));
  volumes_.add("/a", ofOneGiB(100 * MiB));
  EXPECT_THAT(lowSpaceVolumes(), Optional(ElementsAre("/z", "/a")));
}

TEST_F(Volumes, ALowVolumeStaysLowUntilItIsClearByAMargin) {
  volumes_.add("/", ofOneTiB(3 * GiB));
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
  volumes_.setSpace("/", ofOneTiB(GiB));
  EXPECT_THAT(lowSpaceVolumes(), Optional(ElementsAre("/")));
  volumes_.setSpace("/", ofOneTiB(2 * GiB + 1));
  EXPECT_THAT(lowSpaceVolumes(), Optional(ElementsAre("/")));
  volumes_.setSpace("/", ofOneTiB(3 * GiB));
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
  volumes_.setSpace("/", ofOneTiB(2 * GiB + 1));
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
}

TEST_F(Volumes, AVolumeThatWasAwayBeginsAnew) {
  volumes_.add("/data", ofOneTiB(GiB));
  EXPECT_THAT(lowSpaceVolumes(), Optional(ElementsAre("/data")));
  volumes_.remove("/data");
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
  volumes_.add("/data", ofOneTiB(2 * GiB + 1));
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
}

TEST_F(Volumes, AVolumeThatCannotBeAskedIsNotLowAndHasNoFreeSpace) {
  volumes_.add("/data", ofOneGiB(0));
  volumes_.setSpace("/data", std::nullopt);
  EXPECT_THAT(lowSpaceVolumes(), Optional(IsEmpty()));
  EXPECT_EQ(volumeFreespace("/data"), 0U);
}

TEST_F(Volumes, FreeSpaceIsWhatAnOrdinaryUserMayTake) {
  volumes_.add("/data", ofOneGiB(42));
  EXPECT_EQ(volumeFreespace("/data"), 42U);
}

TEST_F(Volumes, QuotaVolumesAreThoseOfTheUser) {
  volumes_.setOverQuota(std::vector<std::string>{"/home"});
  EXPECT_THAT(quotaVolumes(1234), Optional(ElementsAre("/home")));
  EXPECT_EQ(volumes_.askedFor(), 1234U);
}

TEST_F(Volumes, AnEmptyQuotaAnswerIsNotTheSameAsNone) {
  volumes_.setOverQuota(std::vector<std::string>());
  EXPECT_THAT(quotaVolumes(0), Optional(IsEmpty()));
  volumes_.setOverQuota(std::nullopt);
  EXPECT_FALSE(quotaVolumes(0));
}

TEST_F(Volumes, AVolumeIsValidatedAsAPath) {
  volumes_.add("/");
  volumes_.add("/mnt/data");
  EXPECT_TRUE(validates("/"));
  EXPECT_TRUE(validates("/mnt/data"));
  EXPECT_TRUE(validates("//mnt//data/"));
  for (const char* other :
       {"", "mnt/data", "/mnt", "/mnt/data/folder", "/mnt/data/.", "/mnt/../mnt/data", "/mnt/dat"}) {
    EXPECT_FALSE(validates(other)) << other;
  }
}

TEST_F(Volumes, AnInfoWithoutAVolumeStringIsNotValid) {
  volumes_.add("/");
  EXPECT_FALSE(validateVolume({}));
  EXPECT_FALSE(validates(5));
  EXPECT_FALSE(validates(Array{"/"}));
}

TEST_F(Volumes, TheMountTableIsReadOnlyWhenItHasChanged) {
  volumes_.add("/");
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(validates("/"));
  EXPECT_EQ(volumes_.timesRead(), 1);
  volumes_.add("/data");
  EXPECT_TRUE(validates("/data"));
  EXPECT_TRUE(validates("/"));
  EXPECT_EQ(volumes_.timesRead(), 2);
}

}  // namespace
}  // namespace kelvane::tests
