#include "platform/dispatch/group.h"

#include <gtest/gtest.h>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/dispatch/manual_clock.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::letThePoolWork;
using test::Occasion;

constexpr std::uint64_t second = 1'000'000'000;

const dispatch_queue_t& global() { return dispatch_get_global_queue(0, 0); }

TEST(Group, IsEmptyWhenItIsNew) {
  EXPECT_EQ(dispatch_group_wait(dispatch_group_create(), DISPATCH_TIME_NOW), 0);
  EXPECT_EQ(dispatch_group_wait(dispatch_group_create(), DISPATCH_TIME_FOREVER), 0);
}

TEST(Group, IsEmptyAgainWhenItHasBeenLeftAsOftenAsItWasEntered) {
  const dispatch_group_t group = dispatch_group_create();
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 2; ++i) dispatch_group_enter(group);
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    dispatch_group_leave(group);
    EXPECT_NE(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
    dispatch_group_leave(group);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_NOW), 0);
  }
}

TEST(Group, WakesEveryThreadThatWaitsWhenItIsLeftForTheLastTime) {
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  std::atomic<bool> left{false};
  std::vector<std::thread> waiters;
  waiters.reserve(4);
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
      EXPECT_TRUE(left.load());
    });
  }
  letThePoolWork();
  left = true;
  dispatch_group_leave(group);
  for (auto& waiter : waiters) waiter.join();
}

TEST(Group, CountsAnItemUntilItHasRunAndHasBeenDestroyed) {
  const dispatch_queue_t queue = dispatch_queue_create("group item");
  for (int i = 0; i < 200; ++i) {
    const dispatch_group_t group = dispatch_group_create();
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> observed = captured;
    dispatch_group_async(group, queue, [captured = std::move(captured)] { ++*captured; });
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
    EXPECT_TRUE(observed.expired());
  }
}

TEST(Group, WaitsForEveryItemOfManyQueues) {
  const dispatch_group_t group = dispatch_group_create();
  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) {
    dispatch_group_async(group, global(), [&] { ++ran; });
    dispatch_group_async(group, dispatch_queue_create("one of many"), [&] { ++ran; });
  }
  EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
  EXPECT_EQ(ran.load(), 100);
}

TEST(Group, NotifiesAtOnceWhenItIsEmpty) {
  const dispatch_group_t group = dispatch_group_create();
  const dispatch_queue_t queue = dispatch_queue_create("notified at once");
  bool notified = false;
  dispatch_group_notify(group, queue, [&] { notified = true; });
  EXPECT_TRUE(dispatch_sync(queue, [&] { return notified; }));
}

TEST(Group, NotifiesOnceWhenItIsNextEmptyAndNotAgainLater) {
  const dispatch_group_t group = dispatch_group_create();
  const dispatch_queue_t queue = dispatch_queue_create("notified once");
  int notified = 0;
  const auto count = [&] { return dispatch_sync(queue, [&] { return notified; }); };
  for (int i = 0; i < 2; ++i) dispatch_group_enter(group);
  dispatch_group_notify(group, queue, [&] { ++notified; });
  dispatch_group_leave(group);
  EXPECT_EQ(count(), 0);
  dispatch_group_leave(group);
  EXPECT_EQ(count(), 1);
  dispatch_group_enter(group);
  dispatch_group_leave(group);
  EXPECT_EQ(count(), 1);
}

TEST(Group, SubmitsEveryNotificationToItsOwnQueue) {
  const dispatch_group_t group = dispatch_group_create();
  const dispatch_queue_t one = dispatch_queue_create("one");
  const dispatch_queue_t other = dispatch_queue_create("other");
  Occasion notified;
  dispatch_group_enter(group);
  dispatch_group_notify(group, one, [&] {
    dispatch_assert_queue(one);
    notified.happen();
  });
  dispatch_group_notify(group, other, [&] {
    dispatch_assert_queue(other);
    notified.happen();
  });
  dispatch_group_leave(group);
  notified.await(2);
}

TEST(Group, NeitherLosesNorRepeatsANotificationAmongManyThreads) {
  const dispatch_queue_t queue = dispatch_queue_create("counted");
  int notified = 0;
  for (int round = 0; round < 100; ++round) {
    const dispatch_group_t group = dispatch_group_create();
    dispatch_group_enter(group);
    for (int i = 0; i < 4; ++i) {
      dispatch_group_async(group, global(),
                           [&, group] { dispatch_group_notify(group, queue, [&] { ++notified; }); });
    }
    dispatch_group_leave(group);
    EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
  }
  // The last leave submits the notifications after it has let the waiters go.
  for (int seen = 0; seen < 400;) {
    seen = dispatch_sync(queue, [&] { return notified; });
    std::this_thread::yield();
  }
  letThePoolWork();
  EXPECT_EQ(dispatch_sync(queue, [&] { return notified; }), 400);
}

TEST(Group, GoesOnWaitingHalfWayToTheDeadlineAndTimesOutWhenItHasCome) {
  ManualClock clock;
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    EXPECT_NE(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 10 * second)), 0);
    returned = true;
  });
  clock.awaitWaiterFor(10 * second);
  clock.advance(5 * second);
  clock.awaitWaiterFor(5 * second);  // it has looked, and waits for the rest
  EXPECT_FALSE(returned.load());
  clock.advance(5 * second);
  waiter.join();
  dispatch_group_leave(group);
}

TEST(Group, ReportsThatItBecameEmptyBeforeTheDeadline) {
  ManualClock clock;
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  std::thread waiter(
      [&] { EXPECT_EQ(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 10 * second)), 0); });
  clock.awaitWaiterFor(10 * second);
  dispatch_group_leave(group);
  waiter.join();
}

TEST(Group, TimesOutAtOnceAtAnAbsoluteTimeInThePastWithMembersOutstanding) {
  const ManualClock clock;
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  EXPECT_NE(dispatch_group_wait(group, 5 * second), 0);
  EXPECT_NE(dispatch_group_wait(group, 1), 0);
  EXPECT_NE(dispatch_group_wait(group, clock.now()), 0);
  dispatch_group_leave(group);
  EXPECT_EQ(dispatch_group_wait(group, 5 * second), 0);
}

TEST(Group, TimesOutAtOnceAtAnAbsoluteTimeInThePastOfTheHostsClock) {
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  EXPECT_NE(dispatch_group_wait(group, 5), 0);
  dispatch_group_leave(group);
}

TEST(GroupDeathTest, LeavingItOnceTooOftenIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  dispatch_group_leave(group);
  EXPECT_DEATH(dispatch_group_leave(group), "kelvane: fatal: leaving a group more often than it was entered");
}

}  // namespace
}  // namespace kelvane
