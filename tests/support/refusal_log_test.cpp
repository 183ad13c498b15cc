#include "support/refusal_log.h"

#include <gtest/gtest.h>

#include "platform/dispatch/manual_clock.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t ten_seconds = 10'000'000'000;

TEST(RefusalLog, EachUserHasALineOfItsOwnInTenSeconds) {
  ManualClock clock;
  const LogCapture log(3);
  RefusalLog refusals;
  for (const uid_t user : {1000U, 1001U, 1000U, 1001U}) refusals.refused(user, 2048);
  EXPECT_EQ(log.count(3, "resume refused a connection of user 1000: it has 2048 open, the most allowed"), 1U);
  EXPECT_EQ(log.count(3, "resume refused a connection of user 1001: it has 2048 open, the most allowed"), 1U);
  clock.advance(ten_seconds / 2);
  refusals.refused(1002, 2048);
  clock.advance(ten_seconds / 2);
  refusals.refused(1000, 2048);
  refusals.refused(1002, 2048);
  EXPECT_EQ(log.count("of user 1000"), 2U);
  EXPECT_EQ(log.count("of user 1002"), 1U);
}

TEST(RefusalLog, NoMoreThanTheMostUsersHaveALineInTenSeconds) {
  ManualClock clock;
  const LogCapture log(3);
  RefusalLog refusals;
  const uid_t first = 1000;
  const uid_t end = first + RefusalLog::most_users + 10;
  for (uid_t user = first; user < end; ++user) refusals.refused(user, 2048);
  EXPECT_EQ(log.count("refused"), RefusalLog::most_users);
  EXPECT_FALSE(log.contains("of user " + std::to_string(end - 1)));
  clock.advance(ten_seconds);
  refusals.refused(end - 1, 2048);
  EXPECT_EQ(log.count("of user " + std::to_string(end - 1)), 1U);
}

}  // namespace
}  // namespace kelvane::tests
