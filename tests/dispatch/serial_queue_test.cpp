#include <gtest/gtest.h>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/dispatch/queue.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::Occasion;

TEST(SerialQueue, RunsAsynchronousAndSynchronousItemsInTheOrderOfSubmission) {
  const dispatch_queue_t queue = dispatch_queue_create("mixed");
  std::vector<int> order;  // plain on purpose: only items of the queue touch it
  for (int i = 0; i < 3000; ++i) {
    if (i % 3 == 2) {
      dispatch_sync(queue, [&order, i] { order.push_back(i); });
    } else {
      dispatch_async(queue, [&order, i] { order.push_back(i); });
    }
  }
  const std::vector<int> ran = dispatch_sync(queue, [&] { return order; });
  ASSERT_EQ(ran.size(), 3000U);
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(ran[static_cast<std::size_t>(i)], i);
}

TEST(SerialQueue, WithManyItemsLetsAnotherHaveItsTurnBeforeTheyAreDone) {
  const dispatch_queue_t queue = dispatch_queue_create("long");
  const dispatch_queue_t other = dispatch_queue_create("other");
  Occasion all_submitted;
  Occasion done;
  std::atomic<int> ran{0};
  std::atomic<int> ran_before_the_other{0};
  dispatch_async(queue, [&] {
    all_submitted.await();
    dispatch_async(other, [&] { ran_before_the_other = ran.load(); });
  });
  constexpr int items = 1000;
  for (int i = 0; i < items; ++i) dispatch_async(queue, [&] { ++ran; });
  dispatch_async(queue, [&] { done.happen(); });
  all_submitted.happen();
  done.await();
  dispatch_sync(other, [] {});
  EXPECT_LT(ran_before_the_other, items);
}

TEST(SerialQueue, KeepsTheOrderOfEachThreadAmongAHundredThousandItemsFromEight) {
  constexpr int thread_count = 8;
  constexpr int items = 12'500;
  const dispatch_queue_t queue = dispatch_queue_create("ordered");
  std::vector<int> next(thread_count, 0);
  int out_of_order = 0;
  std::vector<std::thread> threads;
  threads.reserve(thread_count);
  for (int t = 0; t < thread_count; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < items; ++i) {
        dispatch_async(queue, [&, t, i] {
          if (next[static_cast<std::size_t>(t)]++ != i) ++out_of_order;
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  dispatch_sync(queue, [&] {
    EXPECT_EQ(out_of_order, 0);
    for (const int count : next) EXPECT_EQ(count, items);
  });
}

TEST(SerialQueue, RunsOneItemAtATimeWhenManyThreadsGoToItBothWays) {
  constexpr int thread_count = 8;
  constexpr int rounds = 500;
  const dispatch_queue_t queue = dispatch_queue_create("contended");
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  int ran = 0;
  const auto item = [&] {
    if (inside.fetch_add(1) != 0) ++overlaps;
    ++ran;
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  threads.reserve(thread_count);
  for (int t = 0; t < thread_count; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < rounds; ++i) {
        dispatch_async(queue, item);
        dispatch_sync(queue, item);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(dispatch_sync(queue, [&] { return ran; }), 2 * thread_count * rounds);
  EXPECT_EQ(overlaps.load(), 0);
}

TEST(SerialQueue, RunsASynchronousItemOnTheCallingThreadWhenItIsIdle) {
  const dispatch_queue_t queue = dispatch_queue_create("idle");
  EXPECT_EQ(dispatch_sync(queue, [] { return std::this_thread::get_id(); }), std::this_thread::get_id());
}

TEST(SerialQueue, ReturnsFromASynchronousCallOnlyWhenTheItemHasRunBehindThoseBefore) {
  const dispatch_queue_t queue = dispatch_queue_create("busy");
  Occasion started;
  Occasion may_end;
  bool first_ended = false;
  dispatch_async(queue, [&] {
    started.happen();
    may_end.await();
    first_ended = true;
  });
  started.await();
  bool second_ran = false;
  std::thread caller([&] {
    dispatch_sync(queue, [&] { second_ran = first_ended; });
    EXPECT_TRUE(second_ran);
  });
  may_end.happen();
  caller.join();
}

TEST(SerialQueue, HandsBackWhatTheSynchronousItemReturnedEvenIfItCannotBeCopied) {
  const dispatch_queue_t queue = dispatch_queue_create("result");
  const auto result = dispatch_sync(queue, [] { return std::make_unique<int>(7); });
  EXPECT_EQ(*result, 7);
}

TEST(SerialQueue, NeitherBlocksNorRunsTheItemInAnAsynchronousCall) {
  const dispatch_queue_t queue = dispatch_queue_create("later");
  thread_local bool submitting = false;
  std::atomic<bool> ran_within{false};
  Occasion may_end;
  dispatch_async(queue, [&] { may_end.await(); });  // were a later call to block, the test would not end
  for (int i = 0; i < 100; ++i) {
    submitting = true;
    dispatch_async(queue, [&] {
      if (submitting) ran_within = true;
      submitting = true;
      dispatch_async(queue, [&] {
        if (submitting) ran_within = true;
      });
      submitting = false;
    });
    submitting = false;
  }
  may_end.happen();
  dispatch_sync(queue, [] {});
  dispatch_sync(queue, [] {});
  EXPECT_FALSE(ran_within.load());
}

TEST(SerialQueue, RunsTheItemsOfTwoQueuesAtTheSameTime) {
  const dispatch_queue_t one = dispatch_queue_create("one");
  const dispatch_queue_t other = dispatch_queue_create("other");
  Occasion one_started;
  Occasion other_started;
  dispatch_async(one, [&] {
    one_started.happen();
    other_started.await();
  });
  dispatch_async(other, [&] {
    other_started.happen();
    one_started.await();
  });
  dispatch_sync(one, [] {});
  dispatch_sync(other, [] {});
  EXPECT_EQ(one_started.times() + other_started.times(), 2);
}

TEST(SerialQueue, StaysAliveWhileItHasItems) {
  dispatch_queue_t queue = dispatch_queue_create("kept");
  const std::weak_ptr<dispatch::Queue> observed = queue;
  Occasion may_go_on;
  Occasion ran;
  dispatch_async(queue, [&] { may_go_on.await(); });
  for (int i = 0; i < 100; ++i) dispatch_async(queue, [&] { ran.happen(); });
  queue.reset();
  EXPECT_FALSE(observed.expired());
  may_go_on.happen();
  ran.await(100);
}

TEST(SerialQueue, StaysAliveWhileASynchronousItemDropsTheLastReference) {
  dispatch_queue_t queue = dispatch_queue_create("dropped by its own item");
  const std::weak_ptr<dispatch::Queue> observed = queue;
  const bool alive_inside = dispatch_sync(queue, [&] {
    queue.reset();
    return !observed.expired();
  });
  EXPECT_TRUE(alive_inside);
  EXPECT_TRUE(observed.expired());
}

TEST(SerialQueue, DropsWhatAnItemCapturedOnTheThreadThatRanIt) {
  struct Witness {
    explicit Witness(Occasion& dropped, std::thread::id& thread) : dropped_(&dropped), thread_(&thread) {}
    Witness(Witness&& other) noexcept
        : dropped_(std::exchange(other.dropped_, nullptr)), thread_(other.thread_) {}
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    Witness& operator=(Witness&&) = delete;
    ~Witness() {
      if (dropped_ == nullptr) return;
      *thread_ = std::this_thread::get_id();
      dropped_->happen();
    }
    Occasion* dropped_;
    std::thread::id* thread_;
  };
  for (const dispatch_queue_t& queue : {dispatch_queue_create("captures"), dispatch_get_global_queue(0, 0)}) {
    Occasion dropped;
    std::thread::id ran_on;
    std::thread::id dropped_on;
    dispatch_async(queue, [witness = Witness(dropped, dropped_on), &ran_on, &dropped] {
      ran_on = std::this_thread::get_id();
      EXPECT_EQ(dropped.times(), 0);
    });
    dropped.await();
    EXPECT_EQ(ran_on, dropped_on);
  }
}

TEST(SerialQueue, DropsWhatAnItemCapturedBeforeTheNextItemRuns) {
  const dispatch_queue_t queue = dispatch_queue_create("captures in turn");
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> observed = captured;
  dispatch_async(queue, [captured = std::move(captured)] { ++*captured; });
  EXPECT_TRUE(dispatch_sync(queue, [&] { return observed.expired(); }));
}

TEST(SerialQueue, IsCurrentInsideItsItemsAndInNestedSynchronousOnesOnly) {
  const dispatch_queue_t outer = dispatch_queue_create("outer");
  const dispatch_queue_t inner = dispatch_queue_create("inner");
  EXPECT_FALSE(dispatch_queue_is_current(outer));
  Occasion done;
  dispatch_async(outer, [&] {
    dispatch_assert_queue(outer);
    EXPECT_FALSE(dispatch_queue_is_current(inner));
    dispatch_sync(inner, [&] {
      dispatch_assert_queue(inner);
      dispatch_assert_queue(outer);
      dispatch_sync(dispatch_get_global_queue(0, 0), [&] {
        dispatch_assert_queue(dispatch_get_global_queue(0, 0));
        dispatch_assert_queue(outer);
      });
    });
    EXPECT_FALSE(dispatch_queue_is_current(inner));
    dispatch_async(inner, [&] {
      EXPECT_FALSE(dispatch_queue_is_current(outer));
      done.happen();
    });
  });
  done.await();
  EXPECT_FALSE(dispatch_queue_is_current(outer));
}

TEST(SerialQueue, KeepsItsLabelWhichAnotherMayShare) {
  const dispatch_queue_t one = dispatch_queue_create("shared label");
  const dispatch_queue_t other = dispatch_queue_create("shared label");
  EXPECT_EQ(dispatch_queue_get_label(one), "shared label");
  EXPECT_EQ(dispatch_queue_get_label(other), "shared label");
  dispatch_sync(one, [&] { dispatch_sync(other, [] {}); });
}

class SerialQueueDeathTest : public ::testing::Test {
 protected:
  SerialQueueDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SerialQueueDeathTest, WaitingSynchronouslyForTheQueueOneRunsOnIsFatalAndNamesIt) {
  const dispatch_queue_t queue = dispatch_queue_create("com.orvel.myself");
  EXPECT_DEATH(dispatch_sync(queue, [&] { dispatch_sync(queue, [] {}); }),
               "kelvane: fatal: waiting synchronously for a queue.*\\(com\\.orvel\\.myself\\)");
}

TEST_F(SerialQueueDeathTest, WaitingSynchronouslyForItThroughAnotherQueueIsFatalAsWell) {
  const dispatch_queue_t queue = dispatch_queue_create("com.orvel.first");
  const dispatch_queue_t other = dispatch_queue_create("com.orvel.second");
  const auto goRound = [&] {
    dispatch_async(queue, [&] { dispatch_sync(other, [&] { dispatch_sync(queue, [] {}); }); });
    Occasion never;
    never.await();
  };
  EXPECT_DEATH(goRound(), "waiting synchronously for a queue.*\\(com\\.orvel\\.first\\)");
}

TEST_F(SerialQueueDeathTest, AssertingAQueueThatOneIsNotOnIsFatalAndNamesIt) {
  const dispatch_queue_t queue = dispatch_queue_create("com.orvel.elsewhere");
  EXPECT_DEATH(dispatch_assert_queue(queue), "running outside the queue.*\\(com\\.orvel\\.elsewhere\\)");
}

TEST_F(SerialQueueDeathTest, AnExceptionThrownOutOfAnAsynchronousItemIsFatal) {
  const auto throwing = [] {
    dispatch_async(dispatch_queue_create("throwing"), [] { throw std::runtime_error("thrown out"); });
    Occasion never;
    never.await();
  };
  EXPECT_EXIT(throwing(), ::testing::KilledBySignal(SIGABRT), "thrown out");
}

TEST_F(SerialQueueDeathTest, AnExceptionThrownOutOfASynchronousItemIsFatal) {
  const auto throwing = [] {
    const dispatch_queue_t queue = dispatch_queue_create("throwing");
    try {
      dispatch_sync(queue, [] { throw std::runtime_error("thrown out"); });
    } catch (const std::runtime_error&) {
      std::_Exit(0);
    }
  };
  EXPECT_EXIT(throwing(), ::testing::KilledBySignal(SIGABRT), "thrown out");
}

TEST_F(SerialQueueDeathTest, WorkGoesOnWhileTheMainThreadIsParked) {
  const auto park = [] {
    dispatch_async(dispatch_queue_create("work"),
                   [] { dispatch_async(dispatch_get_global_queue(0, 0), [] { std::_Exit(7); }); });
    dispatch_main();
  };
  EXPECT_EXIT(park(), ::testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace kelvane
