#include "platform/dispatch/clock.h"

#include <gtest/gtest.h>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <thread>

#include "platform/dispatch/manual_clock.h"
#include "platform/dispatch/time.h"

namespace kelvane {
namespace {

constexpr std::uint64_t second = 1'000'000'000;
constexpr dispatch_time_t last = DISPATCH_TIME_FOREVER - 1;

/// Destroyed after every static object of the clock; looks at the time then, as a thread of the pool may.
struct Survivor {
  ~Survivor() {
    if (exit_status != 0) std::_Exit(Clock::current().now() > 0 ? exit_status : 1);
  }
  int exit_status = 0;
};
__attribute__((init_priority(101))) Survivor survivor;

TEST(Time, IsCountedFromThePresentMomentForNow) {
  const ManualClock clock(500 * second);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, 0), 500 * second);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, 7), 500 * second + 7);
}

TEST(Time, IsCountedFromAnAbsoluteTimeWhateverThePresentMomentIs) {
  const ManualClock clock(500 * second);
  EXPECT_EQ(dispatch_time(3, 4), 7U);
  EXPECT_EQ(dispatch_time(900 * second, 1), 900 * second + 1);
}

TEST(Time, GoesBackByANegativeDistance) {
  const ManualClock clock(500 * second);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, -100 * static_cast<std::int64_t>(second)), 400 * second);
  EXPECT_EQ(dispatch_time(10, -4), 6U);
}

TEST(Time, StopsJustInsideTheLowerEndOfTheScale) {
  const ManualClock clock(500 * second);
  EXPECT_EQ(dispatch_time(10, -9), 1U);
  EXPECT_EQ(dispatch_time(10, -10), 1U);
  EXPECT_EQ(dispatch_time(10, -11), 1U);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, std::numeric_limits<std::int64_t>::min()), 1U);
}

TEST(Time, StopsJustInsideTheUpperEndOfTheScale) {
  constexpr std::int64_t longest = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(dispatch_time(last - 1, 0), last - 1);
  EXPECT_EQ(dispatch_time(last - 1, 1), last);
  EXPECT_EQ(dispatch_time(last - 1, 2), last);
  EXPECT_EQ(dispatch_time(last, 0), last);
  EXPECT_EQ(dispatch_time(last, longest), last);
  EXPECT_EQ(dispatch_time(dispatch_time(1, longest), longest), last);
}

TEST(Time, StaysForeverWhateverIsAdded) {
  constexpr std::int64_t shortest = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, 0), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, 1), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -1), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, shortest), DISPATCH_TIME_FOREVER);
}

TEST(Sleep, EndsWhenTheDeadlineHasComeAndNotHalfWay) {
  ManualClock clock;
  std::atomic<bool> returned{false};
  std::thread sleeper([&] {
    dispatch_sleep_until(dispatch_time(DISPATCH_TIME_NOW, 10 * second));
    returned = true;
  });
  clock.awaitWaiterFor(10 * second);
  clock.advance(5 * second);
  clock.awaitWaiterFor(5 * second);
  EXPECT_FALSE(returned.load());
  clock.advance(5 * second);
  sleeper.join();
}

TEST(Sleep, ReturnsAtOnceWhenTheDeadlineIsPast) {
  const ManualClock clock;
  dispatch_sleep_until(5 * second);
  dispatch_sleep_until(DISPATCH_TIME_NOW);
  EXPECT_EQ(clock.now(), 3600 * second);
}

TEST(ManualClock, MovesNowAndTheCalendarTogetherAndOnlyWhenItIsMoved) {
  ManualClock clock(second, 1000);
  EXPECT_EQ(Clock::current().now(), second);
  EXPECT_EQ(Clock::current().calendarMicroseconds(), 1000);
  clock.advance(5000);
  EXPECT_EQ(Clock::current().now(), second + 5000);
  EXPECT_EQ(Clock::current().calendarMicroseconds(), 1005);
}

TEST(ManualClock, IsTheClockOnlyForAsLongAsItLives) {
  Clock& before = Clock::current();
  {
    const ManualClock clock;
    EXPECT_EQ(&Clock::current(), &clock);
  }
  EXPECT_EQ(&Clock::current(), &before);
}

TEST(HostClock, NeverGoesBackAndKnowsTheCalendar) {
  const Clock& clock = Clock::current();
  std::uint64_t before = clock.now();
  for (int i = 0; i < 1000; ++i) {
    const std::uint64_t now = clock.now();
    EXPECT_GE(now, before);
    before = now;
  }
  EXPECT_GT(clock.calendarMicroseconds(), 1'600'000'000'000'000);
}

TEST(HostClockDeathTest, StillGoesWhileTheProcessExits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto leave = [] {
    static_cast<void>(Clock::current().now());
    survivor.exit_status = 9;
    std::exit(2);  // NOLINT(concurrency-mt-unsafe)
  };
  EXPECT_EXIT(leave(), ::testing::ExitedWithCode(9), "");
}

}  // namespace
}  // namespace kelvane
