// The deadline of a purge: 70 % of its pass, however often the service is asked in it.

#include "client/pass_deadline.h"

#include <gtest/gtest.h>

#include "kelvane/keys.h"
#include "platform/dispatch/manual_clock.h"

namespace kelvane::tests {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class APass : public testing::Test {
 protected:
  static Dictionary info(std::uint64_t free_at_begin = 1000, std::uint64_t timeout = 0) {
    Dictionary info{{KELVANE_FREESPACE_BEGIN, free_at_begin}, {KELVANE_AMOUNT, 100}};
    if (timeout != 0) info.set(KELVANE_PURGE_TIMEOUT, timeout);
    return info;
  }
  void pass(std::chrono::nanoseconds time) { clock_.advance(static_cast<std::uint64_t>(time.count())); }
  /// From now on.
  std::chrono::nanoseconds left(int urgency, const Dictionary& info) {
    return pass_.answerBy(urgency, info) - client::present();
  }

  ManualClock clock_;
  client::PassDeadline pass_;
};

TEST_F(APass, LastsTwoSecondsForEachUrgencyOfWhichSeventyPercentAreTheServices) {
  for (int urgency = 1; urgency <= 4; ++urgency)
    EXPECT_EQ(left(urgency, info()), milliseconds(1400) * urgency);
}

TEST_F(APass, LastsAsLongAsTheRequestSaysUpToThreeHundredSeconds) {
  EXPECT_EQ(left(1, info(1, 10)), seconds(7));
  EXPECT_EQ(left(1, info(2, 300)), seconds(210));
  EXPECT_EQ(left(1, info(3, 301)), seconds(210));
  Dictionary least = info(4);
  least.set(KELVANE_PURGE_TIMEOUT, -1);
  EXPECT_EQ(left(1, least), seconds(210));
  least.set(KELVANE_PURGE_TIMEOUT, "soon");
  EXPECT_EQ(left(1, least), milliseconds(1400));
}

TEST_F(APass, LeavesAServiceThatIsAskedAgainWhatIsLeftOfIt) {
  EXPECT_EQ(left(2, info()), milliseconds(2800));
  pass(seconds(1));
  pass_.answered(100, 100);
  EXPECT_EQ(left(2, info()), milliseconds(1800));
  pass(seconds(1));
  pass_.answered(100, 120);
  EXPECT_EQ(left(2, info()), milliseconds(800));
  pass(seconds(1));
  pass_.answered(100, 100);
  EXPECT_EQ(left(2, info()), milliseconds(-200));
}

TEST_F(APass, IsAnotherOneAtTheNextUrgency) {
  EXPECT_EQ(left(1, info()), milliseconds(1400));
  pass(seconds(1));
  pass_.answered(100, 100);
  EXPECT_EQ(left(2, info()), milliseconds(2800));
}

TEST_F(APass, IsAnotherOneWhenTheVolumeBeganWithOtherFreeSpaceOrTheTokenIsAnother) {
  Dictionary first = info();
  first.set(KELVANE_TOKEN, "first");
  EXPECT_EQ(left(1, first), milliseconds(1400));
  pass(seconds(1));
  pass_.answered(100, 100);
  Dictionary second = info();
  second.set(KELVANE_TOKEN, "second");
  EXPECT_EQ(left(1, second), milliseconds(1400));
  pass(seconds(1));
  pass_.answered(100, 100);
  Dictionary third = info(1001);
  third.set(KELVANE_TOKEN, "second");
  EXPECT_EQ(left(1, third), milliseconds(1400));
}

/// The daemon asks a service again only if it gave all that was asked for.
TEST_F(APass, IsAnotherOneAfterAnAnswerThatGaveTooLittle) {
  EXPECT_EQ(left(1, info()), milliseconds(1400));
  pass(seconds(1));
  pass_.answered(100, 99);
  EXPECT_EQ(left(1, info()), milliseconds(1400));
}

TEST_F(APass, IsOverWhenItsTimeIs) {
  EXPECT_EQ(left(1, info()), milliseconds(1400));
  pass_.answered(100, 100);
  pass(milliseconds(1999));
  EXPECT_EQ(left(1, info()), milliseconds(-599));
  pass_.answered(100, 100);
  pass(milliseconds(1));
  EXPECT_EQ(left(1, info()), milliseconds(1400));
}

TEST_F(APass, IsNotWhatAQuestionOrPeriodicMaintenanceHas) {
  EXPECT_EQ(client::questionAnswerBy() - client::present(), seconds(8));
  EXPECT_EQ(client::periodicAnswerBy() - client::present(), seconds(10));
}

}  // namespace
}  // namespace kelvane::tests
