// How an amount is divided among the directories of several users.

#include "caches/shares.h"

#include <gmock/gmock.h>
#include <numeric>

#include "client/age_histogram.h"

namespace kelvane::caches::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Le;

constexpr std::int64_t now = 1'700'000'000;
constexpr std::int64_t day = 86'400;

/// A survey of a directory in which everything older than `oldest_kept` days may go at urgency 3.
client::CacheSurvey surveyOf(const std::vector<std::pair<std::int64_t, std::uint64_t>>& days_and_bytes,
                             std::int64_t oldest_kept = 0) {
  client::CacheSurvey survey;
  survey.taken_at = now;
  survey.newest_at_urgency[2] = now - oldest_kept * day;
  for (const auto& [days, bytes] : days_and_bytes) {
    survey.ages.buckets[client::ageBucket(days * day)].bytes += bytes;
    if (days >= oldest_kept) survey.at_urgency[2].bytes += bytes;
  }
  return survey;
}

TEST(Shares, TakeTheOldestWhereverItIs) {
  const client::CacheSurvey old = surveyOf({{100, 1000}, {90, 1000}});
  const client::CacheSurvey young = surveyOf({{10, 1000}, {5, 1000}});
  EXPECT_THAT(shareOut({&old, &young}, 3, 2000).amounts, ElementsAre(2000, 0));
  EXPECT_THAT(shareOut({&old, &young}, 3, 3000).amounts, ElementsAre(2000, 1000));
}

TEST(Shares, DivideWhatIsOfOneAge) {
  const client::CacheSurvey much = surveyOf({{50, 3000}});
  const client::CacheSurvey little = surveyOf({{50, 1000}});
  EXPECT_THAT(shareOut({&much, &little}, 3, 2000).amounts, ElementsAre(1500, 500));
}

TEST(Shares, AreNeverMoreThanTheAmount) {
  const client::CacheSurvey a = surveyOf({{50, 1001}, {40, 7}});
  const client::CacheSurvey b = surveyOf({{50, 333}, {10, 9999}});
  const client::CacheSurvey c = surveyOf({{49, 1}});
  for (std::uint64_t amount = 1; amount < 12'000; amount += 37) {
    const std::vector<std::uint64_t> amounts = shareOut({&a, &b, &c}, 3, amount).amounts;
    ASSERT_LE(std::accumulate(amounts.begin(), amounts.end(), std::uint64_t{0}), amount);
    ASSERT_GE(std::accumulate(amounts.begin(), amounts.end(), std::uint64_t{0}) + 3,
              std::min<std::uint64_t>(amount, 11'341));
  }
}

TEST(Shares, OfMoreThanThereIsAreEverything) {
  const client::CacheSurvey a = surveyOf({{50, 1000}});
  const client::CacheSurvey b = surveyOf({{40, 500}});
  const std::vector<std::uint64_t> amounts = shareOut({&a, &b}, 3, UINT64_MAX).amounts;
  EXPECT_GE(amounts[0], 1000U);
  EXPECT_GE(amounts[1], 500U);
  EXPECT_LE(amounts[0], UINT64_MAX - amounts[1]);
}

TEST(Shares, DoNotCountOnWhatAUserKeepsLonger) {
  const client::CacheSurvey kept = surveyOf({{20, 5000}}, 30);
  const client::CacheSurvey free = surveyOf({{20, 1000}, {10, 1000}});
  EXPECT_THAT(shareOut({&kept, &free}, 3, 2000).amounts, ElementsAre(0, 2000));
}

TEST(Shares, OfNothingAreNothing) {
  EXPECT_TRUE(shareOut({}, 3, 1000).amounts.empty());
  const client::CacheSurvey empty = surveyOf({});
  EXPECT_THAT(shareOut({&empty}, 9, 1000).amounts, ElementsAre(0));
}

TEST(Shares, OfLiesThatOverflowAreBounded) {
  client::CacheSurvey lie = surveyOf({{50, 1000}});
  lie.ages.buckets.fill({UINT64_MAX, UINT64_MAX});
  lie.at_urgency.fill({UINT64_MAX, UINT64_MAX});
  const client::CacheSurvey honest = surveyOf({{50, 1000}});
  const std::vector<std::uint64_t> amounts = shareOut({&lie, &honest}, 3, 1000).amounts;
  EXPECT_THAT(amounts, Each(Le(1000U)));
}

}  // namespace
}  // namespace kelvane::caches::tests
