#include <gtest/gtest.h>
#include <chrono>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/queue.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::Occasion;

constexpr int crowd = 20;

// Never destroyed: a thread of the pool may end while the process does.
Occasion& gone = *new Occasion;

/// Made by a thread of the pool, destroyed when that thread ends.
struct EndOfThread {
  EndOfThread() = default;
  EndOfThread(const EndOfThread&) = delete;
  EndOfThread& operator=(const EndOfThread&) = delete;
  ~EndOfThread() { gone.happen(); }
  bool made = false;
};
thread_local EndOfThread end_of_thread;

TEST(Pool, GrowsWithItsBlockedItemsAndLetsIdleThreadsGoExceptTheOneThatPolls) {
  dispatch::Executor::shared().letIdleThreadsGoAfter(std::chrono::milliseconds(1));
  Occasion met;
  Occasion left;
  for (int i = 0; i < crowd; ++i) {
    dispatch_async(dispatch_get_global_queue(0, 0), [&] {
      end_of_thread.made = true;
      met.happen();
      met.await(crowd + 1);
      left.happen();
    });
  }
  met.await(crowd);
  EXPECT_GE(dispatch_statistics().threads, static_cast<unsigned>(crowd));
  met.happen();
  left.await(crowd);
  gone.await(crowd - 1);
  EXPECT_LE(dispatch_statistics().threads, 2U);  // the one that polls, and one more that the watchman called
  EXPECT_GE(dispatch_statistics().threads, 1U);

  Occasion ran;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] { ran.happen(); });
  ran.await();
}

}  // namespace
}  // namespace kelvane
