#include <gtest/gtest.h>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/dispatch/source.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::Occasion;

constexpr std::int64_t second = 1'000'000'000;

dispatch_time_t after(std::int64_t nanoseconds) { return dispatch_time(DISPATCH_TIME_NOW, nanoseconds); }

/// Ends a queue's due work: what the clock has submitted when `advance` returns has run afterwards.
void drain(const dispatch_queue_t& queue) {
  dispatch_sync(queue, [] {});
}

/// Every test leaves no timer behind.
class TimerTest : public ::testing::Test {
 protected:
  ~TimerTest() override { EXPECT_EQ(dispatch_statistics().timers, 0U); }

  const dispatch_queue_t queue_ = dispatch_queue_create("timers");
};

class TimerByHand : public TimerTest {
 protected:
  ManualClock clock_;
};

TEST_F(TimerByHand, FiresExactlyAtTheDeadlineAndNotBefore) {
  int fired = 0;
  const Timer timer(after(10 * second), queue_, [&] {
    dispatch_assert_queue(queue_);
    ++fired;
  });
  clock_.advance(5 * second);
  drain(queue_);
  EXPECT_EQ(fired, 0);
  clock_.advance(5 * second - 1);
  drain(queue_);
  EXPECT_EQ(fired, 0);
  clock_.advance(1);
  drain(queue_);
  EXPECT_EQ(fired, 1);
}

TEST_F(TimerByHand, FiresOnce) {
  int fired = 0;
  const Timer timer(after(second), queue_, [&] { ++fired; });
  for (int i = 0; i < 5; ++i) clock_.advance(second);
  drain(queue_);
  EXPECT_EQ(fired, 1);
}

TEST_F(TimerByHand, FiresInTheOrderOfTheDeadlinesWhenManyAreDue) {
  std::vector<int> order;
  std::vector<Timer> timers;
  for (const int delay : {3, 1, 2}) {
    timers.emplace_back(after(delay * second), queue_, [&order, delay] { order.push_back(delay); });
  }
  clock_.advance(10 * second);
  drain(queue_);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(TimerByHand, FiresWithoutTheClockBeingMovedWhenItsDeadlineIsPast) {
  Occasion fired;
  const Timer past(5, queue_, [&] { fired.happen(); });
  const Timer present(clock_.now(), queue_, [&] { fired.happen(); });
  dispatch_after(DISPATCH_TIME_NOW, queue_, [&] { fired.happen(); });
  fired.await(3);
}

TEST_F(TimerByHand, NeverFiresWhenItWasDestroyedBeforeTheDeadline) {
  int fired = 0;
  {
    const Timer timer(after(second), queue_, [&] { ++fired; });
  }
  EXPECT_EQ(dispatch_statistics().timers, 0U);
  clock_.advance(2 * second);
  drain(queue_);
  EXPECT_EQ(fired, 0);
}

TEST_F(TimerByHand, NeverFiresWhenItIsDestroyedOnItsQueueThoughItIsDueAlready) {
  int fired = 0;
  std::optional<Timer> timer;
  timer.emplace(after(second), queue_, [&] { ++fired; });
  dispatch_sync(queue_, [&] {
    clock_.advance(2 * second);  // the handler is in the queue, behind this item
    timer.reset();
  });
  drain(queue_);
  EXPECT_EQ(fired, 0);
}

TEST_F(TimerByHand, IsCancelledWhenAnotherTakesItsPlace) {
  int first = 0;
  int second_one = 0;
  Timer timer(after(second), queue_, [&] { ++first; });
  timer = Timer(after(2 * second), queue_, [&] { ++second_one; });
  clock_.advance(3 * second);
  drain(queue_);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second_one, 1);
}

TEST_F(TimerByHand, IsSetUntilItIsCancelled) {
  Timer timer;
  EXPECT_FALSE(timer.isSet());
  timer = Timer(after(second), queue_, [] {});
  EXPECT_TRUE(timer.isSet());
  timer.cancel();
  EXPECT_FALSE(timer.isSet());
  timer.cancel();
}

TEST_F(TimerByHand, DropsWhatItsHandlerCapturedWhenThatHasRun) {
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> observed = captured;
  const Timer timer(after(second), queue_, [captured = std::move(captured)] { ++*captured; });
  EXPECT_FALSE(observed.expired());
  clock_.advance(second);
  drain(queue_);
  EXPECT_TRUE(observed.expired());
}

TEST_F(TimerByHand, MayBeDestroyedAndSetAnewByItsOwnHandler) {
  int fired = 0;
  Timer timer;
  const std::function<void()> repeat = [&] {
    if (++fired < 3) timer = Timer(after(second), queue_, [&repeat] { repeat(); });
  };
  timer = Timer(after(second), queue_, [&repeat] { repeat(); });
  for (int i = 0; i < 5; ++i) {
    clock_.advance(second);
    drain(queue_);
  }
  EXPECT_EQ(fired, 3);
}

TEST_F(TimerByHand, LetsTheMoverWaitUntilItIsSet) {
  Occasion fired;
  dispatch_async(queue_, [&] { dispatch_after(after(7 * second), queue_, [&] { fired.happen(); }); });
  clock_.advanceToWaiterFor(7 * second);
  fired.await();
}

TEST_F(TimerByHand, NeverComesForever) {
  int fired = 0;
  const Timer timer(DISPATCH_TIME_FOREVER, queue_, [&] { ++fired; });
  EXPECT_EQ(dispatch_statistics().timers, 1U);
  clock_.advance(1ULL << 62);
  drain(queue_);
  EXPECT_EQ(fired, 0);
}

TEST_F(TimerTest, FiresOnTheHostsClock) {
  const dispatch_semaphore_t fired = dispatch_semaphore_create(0);
  const dispatch_time_t deadline = after(1'000'000);
  const Timer timer(deadline, queue_, [&] { dispatch_semaphore_signal(fired); });
  EXPECT_EQ(dispatch_semaphore_wait(fired, DISPATCH_TIME_FOREVER), 0);
  EXPECT_GE(Clock::current().now(), deadline);
}

TEST_F(TimerTest, FiresAtOnceOnTheHostsClockWhenItsDeadlineIsPast) {
  Occasion fired;
  dispatch_after(DISPATCH_TIME_NOW, queue_, [&] { fired.happen(); });
  dispatch_after(5, queue_, [&] { fired.happen(); });
  fired.await(2);
}

TEST_F(TimerTest, FiresBeforeALaterOneThatWasSetFirst) {
  Occasion fired;
  const Timer late(after(3600 * second), queue_, [] { FAIL() << "an hour has not passed"; });
  const Timer early(after(1'000'000), queue_, [&] { fired.happen(); });
  fired.await();
}

TEST_F(TimerTest, FiresAlthoughAnEarlierOneWasCancelled) {
  Occasion fired;
  Timer early(after(500'000), queue_, [] {});
  const Timer late(after(1'000'000), queue_, [&] { fired.happen(); });
  early.cancel();
  fired.await();
}

TEST_F(TimerTest, FiresOnceForEachOfManyThatAreSetAndCancelledByManyThreads) {
  Occasion fired;
  const dispatch_group_t group = dispatch_group_create();
  for (int t = 0; t < 4; ++t) {
    dispatch_group_async(group, dispatch_get_global_queue(0, 0), [&] {
      for (std::int64_t i = 0; i < 100; ++i) {
        const Timer dropped(after(1000 * (i % 7)), queue_, [] {});
        dispatch_after(after(1000 * (i % 13)), queue_, [&] { fired.happen(); });
      }
    });
  }
  EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0);
  fired.await(400);
  drain(queue_);
  EXPECT_EQ(fired.times(), 400);
}

}  // namespace
}  // namespace kelvane
