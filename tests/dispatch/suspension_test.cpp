#include <gtest/gtest.h>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/dispatch/queue.h"
#include "platform/dispatch/suspension.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::letThePoolWork;
using test::Occasion;

TEST(Suspension, StartsNoItemUntilItIsTakenBack) {
  const dispatch_queue_t queue = dispatch_queue_create("suspended");
  dispatch_suspend(queue);
  Occasion ran;
  for (int i = 0; i < 10; ++i) dispatch_async(queue, [&] { ran.happen(); });
  letThePoolWork();
  EXPECT_EQ(ran.times(), 0);
  dispatch_resume(queue);
  ran.await(10);
}

TEST(Suspension, NestsAndEndsWhenEachHasBeenTakenBack) {
  const dispatch_queue_t queue = dispatch_queue_create("nested");
  for (int i = 0; i < 3; ++i) dispatch_suspend(queue);
  Occasion ran;
  dispatch_async(queue, [&] { ran.happen(); });
  for (int i = 0; i < 2; ++i) {
    dispatch_resume(queue);
    letThePoolWork();
    EXPECT_EQ(ran.times(), 0);
  }
  dispatch_resume(queue);
  ran.await();
}

TEST(Suspension, LetsTheRunningItemFinish) {
  const dispatch_queue_t queue = dispatch_queue_create("running");
  Occasion finished;
  Occasion next_ran;
  dispatch_async(queue, [&] {
    dispatch_suspend(queue);
    letThePoolWork();
    finished.happen();
  });
  dispatch_async(queue, [&] { next_ran.happen(); });
  finished.await();
  letThePoolWork();
  EXPECT_EQ(next_ran.times(), 0);
  dispatch_resume(queue);
  next_ran.await();
}

TEST(Suspension, EndsWithAnItemThatRunsBeforeThoseThatWait) {
  const dispatch_queue_t queue = dispatch_queue_create("continued");
  std::vector<int> order;
  Occasion finished;
  dispatch_async(queue, [&] {
    auto suspension = std::make_shared<Suspension>(queue);
    order.push_back(1);
    dispatch_async(queue, [&] { order.push_back(3); });
    dispatch_async(dispatch_get_global_queue(0, 0), [&, suspension] {
      std::thread waiting([&] {
        dispatch_sync(queue, [&] { order.push_back(4); });
        finished.happen();
      });
      letThePoolWork();
      suspension->endWith([&] {
        dispatch_assert_queue(queue);
        order.push_back(2);
      });
      waiting.join();
    });
  });
  finished.await();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(Suspension, EndsWithAnItemThatWaitsForTheOtherSuspensions) {
  const dispatch_queue_t queue = dispatch_queue_create("suspended twice");
  Suspension first(queue);
  Suspension second(queue);
  Occasion ran;
  second.endWith([&] { ran.happen(); });
  letThePoolWork();
  EXPECT_EQ(ran.times(), 0);
  first.endWith([&] { ran.happen(); });
  ran.await(2);
}

TEST(Suspension, LetsTheRunningSynchronousItemFinish) {
  const dispatch_queue_t queue = dispatch_queue_create("running synchronously");
  Occasion next_ran;
  dispatch_sync(queue, [&] {
    dispatch_async(queue, [&] { next_ran.happen(); });
    dispatch_suspend(queue);
  });
  letThePoolWork();
  EXPECT_EQ(next_ran.times(), 0);
  dispatch_resume(queue);
  next_ran.await();
}

TEST(Suspension, HoldsASynchronousCallerBackToo) {
  const dispatch_queue_t queue = dispatch_queue_create("held back");
  dispatch_suspend(queue);
  std::atomic<bool> taken_back{false};
  std::thread caller([&] { dispatch_sync(queue, [&] { EXPECT_TRUE(taken_back.load()); }); });
  letThePoolWork();
  taken_back = true;
  dispatch_resume(queue);
  caller.join();
}

TEST(Suspension, KeepsTheOrderOfSubmission) {
  const dispatch_queue_t queue = dispatch_queue_create("order kept");
  std::vector<int> order;
  dispatch_suspend(queue);
  for (int i = 0; i < 100; ++i) {
    dispatch_async(queue, [&order, i] { order.push_back(i); });
    dispatch_resume(queue);
    dispatch_suspend(queue);
  }
  dispatch_resume(queue);
  dispatch_sync(queue, [&] {
    ASSERT_EQ(order.size(), 100U);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  });
}

TEST(Suspension, LosesNoItemWhenSeveralThreadsSuspendAndResume) {
  const dispatch_queue_t queue = dispatch_queue_create("shaken");
  Occasion ran;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        dispatch_suspend(queue);
        dispatch_async(queue, [&] { ran.happen(); });
        dispatch_resume(queue);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ran.await(2000);
}

TEST(Suspension, DestroysAllItemsOfAQueueThatIsDroppedWhileItIsSuspended) {
  dispatch_queue_t queue = dispatch_queue_create("dropped");
  dispatch_suspend(queue);
  const auto captured = std::make_shared<int>(0);
  // So many that destroying one from within another's destruction would overflow the stack.
  for (int i = 0; i < 200'000; ++i) dispatch_async(queue, [captured] { ++*captured; });
  EXPECT_EQ(captured.use_count(), 200'001);
  queue.reset();
  EXPECT_EQ(captured.use_count(), 1);
  EXPECT_EQ(*captured, 0);
}

TEST(SuspensionDeathTest, TakingBackOneTooManyIsFatalAndNamesTheQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const dispatch_queue_t queue = dispatch_queue_create("com.orvel.resumed");
  dispatch_suspend(queue);
  dispatch_resume(queue);
  EXPECT_DEATH(dispatch_resume(queue), "resuming a queue that is not suspended \\(com\\.orvel\\.resumed\\)");
}

}  // namespace
}  // namespace kelvane
