#include "support/space_thresholds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr std::uint64_t GiB = 1ULL << 30;

SpaceThresholds parsed(const char* low, const char* very_low) {
  const auto result = parseSpaceThresholds(low, very_low);
  const auto* problem = std::get_if<ThresholdProblem>(&result);
  EXPECT_EQ(problem, nullptr) << problem->text;
  return problem == nullptr ? std::get<SpaceThresholds>(result) : SpaceThresholds();
}

std::string problemOf(const char* low, const char* very_low = nullptr) {
  const auto result = parseSpaceThresholds(low, very_low);
  const auto* problem = std::get_if<ThresholdProblem>(&result);
  return problem != nullptr ? problem->text : "";
}

TEST(SpaceThresholds, AreTheDefaultsWhereNothingIsSaid) {
  EXPECT_EQ(parsed(nullptr, nullptr), SpaceThresholds());
}

TEST(SpaceThresholds, HaveAPartOfTheVolumeAndAnAmount) {
  const SpaceThresholds thresholds = parsed("8%,1G", "2.5%, 512M");
  EXPECT_EQ(thresholds.low, (SpaceLimit{0.08, GiB, 0.05}));
  EXPECT_EQ(thresholds.very_low, (SpaceLimit{0.025, GiB / 2, 0.02}));
}

TEST(SpaceThresholds, MayHaveEitherPartAloneAndInEitherOrder) {
  constexpr std::uint64_t any = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(parsed("8%", "4%").low, (SpaceLimit{0.08, any, 0.05}));
  EXPECT_EQ(parsed("1.5G", "1G").low, (SpaceLimit{1, GiB + GiB / 2, 0.05}));
  EXPECT_EQ(parsed("1G,8%", "1%").low, (SpaceLimit{0.08, GiB, 0.05}));
}

TEST(SpaceThresholds, TakeAmountsInBytesAndInUnitsOf1024) {
  EXPECT_EQ(parsed("4096", nullptr).low.bytes, 4096U);
  EXPECT_EQ(parsed("4K", nullptr).low.bytes, 4096U);
  EXPECT_EQ(parsed("3M", nullptr).low.bytes, 3U << 20);
  EXPECT_EQ(parsed("2T", nullptr).low.bytes, 2048 * GiB);
}

TEST(SpaceThresholds, VeryLowIsHalfOfLowWhereOnlyThatIsSaid) {
  EXPECT_EQ(parsed("8%,1G", nullptr).very_low, (SpaceLimit{0.04, GiB / 2, 0.02}));
  EXPECT_EQ(parsed("8%", nullptr).very_low.bytes, std::numeric_limits<std::uint64_t>::max());
}

TEST(SpaceThresholds, ZeroTurnsAThresholdOffWithThatOfItsInodes) {
  const SpaceThresholds off = parsed("0%", nullptr);
  EXPECT_EQ(spaceLevel({0, GiB, 0, 1000}, SpaceLevel::plenty, off), SpaceLevel::plenty);
  EXPECT_EQ(spaceLevel({0, GiB, 0, 1000}, SpaceLevel::plenty, parsed("0", nullptr)), SpaceLevel::plenty);
  EXPECT_EQ(spaceLevel({0, GiB, 0, 1000}, SpaceLevel::plenty, parsed(nullptr, "0%")), SpaceLevel::low);
}

TEST(SpaceThresholds, ThatDoNotParseSayWhichValueWhichPartWhyAndWhatIsExpected) {
  EXPECT_EQ(problemOf("8x"),
            "KELVANE_LOW_SPACE is \"8x\", and of \"8x\" its unit is none of %, K, M, G and T; "
            "say a part of the volume, an amount, or both, as in \"8%,1G\"");
  EXPECT_THAT(problemOf(nullptr, "8%,1GB"),
              AllOf(HasSubstr("KELVANE_VERY_LOW_SPACE is \"8%,1GB\", and of \"1GB\""),
                    HasSubstr("its unit is none of")));
}

struct Bad {
  const char* value;
  const char* why;
};
class BadThreshold : public testing::TestWithParam<Bad> {};

TEST_P(BadThreshold, IsRefused) {
  EXPECT_THAT(problemOf(GetParam().value), HasSubstr(GetParam().why)) << GetParam().value;
}

INSTANTIATE_TEST_SUITE_P(
    SpaceThresholds, BadThreshold,
    testing::Values(Bad{"", "not a number"}, Bad{",", "not a number"}, Bad{"8%,", "not a number"},
                    Bad{"-1G", "not a number"}, Bad{"-0%", "not a number"}, Bad{"G", "not a number"},
                    Bad{"inf", "not a number"}, Bad{"nan%", "not a number"}, Bad{"0x10", "unit"},
                    Bad{"1e3M", "unit"}, Bad{"101%", "no more than 100 %"}, Bad{"8%,9%", "two parts"},
                    Bad{"1G,2G", "two amounts"}, Bad{"9000000000T", "more than any volume"},
                    Bad{"8 %", "unit"}, Bad{"8%;1G", "unit"}, Bad{"1g", "unit"}));

TEST(SpaceThresholds, VeryLowMayNotBeAboveLow) {
  EXPECT_EQ(problemOf("8%,1G", "9%"),
            "KELVANE_VERY_LOW_SPACE is \"9%\", which is more than KELVANE_LOW_SPACE, \"8%,1G\"; "
            "make it less, or that more");
  EXPECT_THAT(problemOf("8%,1G", "1%,2G"), HasSubstr("which is more"));
  EXPECT_THAT(problemOf(nullptr, "3G"), HasSubstr("10%,2G by default"));
  EXPECT_EQ(problemOf("1G", "5%"), "");  // which is less depends on the volume
}

}  // namespace
}  // namespace kelvane::tests
