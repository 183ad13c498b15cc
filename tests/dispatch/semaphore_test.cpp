#include <gtest/gtest.h>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/dispatch/group.h"
#include "platform/dispatch/manual_clock.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

TEST(Semaphore, IsNullWhenItsValueIsNegative) {
  EXPECT_EQ(dispatch_semaphore_create(-1), nullptr);
  EXPECT_NE(dispatch_semaphore_create(0), nullptr);
}

TEST(Semaphore, CanBeTakenAsOftenAsItsValueSays) {
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(2);
  EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
  EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER), 0);
  EXPECT_NE(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
  dispatch_semaphore_signal(semaphore);
  EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
}

TEST(Semaphore, LetsThroughAsManyThreadsAsThereWereSignals) {
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  test::Occasion passed;
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER), 0);
      passed.happen();
    });
  }
  for (int i = 0; i < 3; ++i) dispatch_semaphore_signal(semaphore);
  passed.await(3);
  test::letThePoolWork();
  EXPECT_EQ(passed.times(), 3);
  for (int i = 0; i < 5; ++i) dispatch_semaphore_signal(semaphore);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(passed.times(), 8);
}

TEST(Semaphore, KeepsItsCountWhenATimeOutAndSignalsMeet) {
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        if (dispatch_semaphore_wait(semaphore, dispatch_time(DISPATCH_TIME_NOW, 1000)) == 0) ++taken;
      }
    });
  }
  for (int i = 0; i < 1000; ++i) dispatch_semaphore_signal(semaphore);
  for (auto& thread : threads) thread.join();
  int rest = 0;
  while (dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW) == 0) ++rest;
  EXPECT_EQ(taken.load() + rest, 1000);
}

TEST(Semaphore, GoesOnWaitingHalfWayToTheDeadlineAndTimesOutWhenItHasCome) {
  ManualClock clock;
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_NE(dispatch_semaphore_wait(semaphore, dispatch_time(DISPATCH_TIME_NOW, 10 * second)), 0);
    returned = true;
  });
  clock.awaitWaiterFor(10 * second);
  clock.advance(5 * second);
  clock.awaitWaiterFor(5 * second);  // it has looked, and waits for the rest
  EXPECT_FALSE(returned.load());
  clock.advance(5 * second);
  waiter.join();
}

TEST(Semaphore, TakesASignalThatComesBeforeTheDeadline) {
  ManualClock clock;
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  std::thread waiter([&] {
    EXPECT_EQ(dispatch_semaphore_wait(semaphore, dispatch_time(DISPATCH_TIME_NOW, 10 * second)), 0);
  });
  clock.awaitWaiterFor(10 * second);
  dispatch_semaphore_signal(semaphore);
  waiter.join();
}

TEST(Semaphore, TimesOutAtOnceAtAnAbsoluteTimeInThePast) {
  const ManualClock clock;
  EXPECT_NE(dispatch_semaphore_wait(dispatch_semaphore_create(0), 5 * second), 0);
  EXPECT_EQ(dispatch_semaphore_wait(dispatch_semaphore_create(1), 5 * second), 0);
}

TEST(Semaphore, TimesOutOnTheHostsClockToo) {
  const std::uint64_t before = Clock::current().now();
  const dispatch_time_t deadline = dispatch_time(DISPATCH_TIME_NOW, 1'000'000);
  EXPECT_NE(dispatch_semaphore_wait(dispatch_semaphore_create(0), deadline), 0);
  EXPECT_GE(Clock::current().now(), deadline);
  EXPECT_GE(deadline, before + 1'000'000);
}

}  // namespace
}  // namespace kelvane
