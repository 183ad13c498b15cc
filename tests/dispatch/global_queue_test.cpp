#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

#include "platform/dispatch/group.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::Occasion;

const dispatch_queue_t& global() { return dispatch_get_global_queue(0, 0); }

constexpr int many = 200;

/// Has a crowd of items wait inside `blocked`, and fails (by its time-out) unless one more still runs.
void expectAnotherItemRunsBeside(const std::function<void()>& blocked, const std::function<void()>& release,
                                 int crowd = many) {
  Occasion entered;
  Occasion left;
  for (int i = 0; i < crowd; ++i) {
    dispatch_async(global(), [&] {
      entered.happen();
      blocked();
      left.happen();
    });
  }
  entered.await(crowd);
  Occasion ran;
  dispatch_async(global(), [&] { ran.happen(); });
  dispatch_async(dispatch_queue_create("beside the crowd"), [&] { ran.happen(); });
  ran.await(2);
  EXPECT_EQ(left.times(), 0);
  release();
  left.await(crowd);
}

TEST(GlobalQueue, RunsItsItemsAtTheSameTime) {
  Occasion met;
  Occasion ended;
  for (int i = 0; i < 5; ++i) {
    dispatch_async(global(), [&] {
      met.happen();
      met.await(5);
      ended.happen();
    });
  }
  ended.await(5);
}

TEST(GlobalQueue, StarvesNoItemWhenAllOthersBlockWithoutTelling) {
  Occasion release;
  expectAnotherItemRunsBeside([&] { release.await(); }, [&] { release.happen(); });
}

TEST(GlobalQueue, StarvesNoItemWhenAllOthersCompute) {
  std::atomic<bool> released{false};
  expectAnotherItemRunsBeside(
      [&] {
        while (!released) {
        }
      },
      [&] { released = true; }, 3);
}

TEST(GlobalQueue, StarvesNoItemWhenAllOthersBlockInASemaphore) {
  const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
  expectAnotherItemRunsBeside(
      [&] { EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER), 0); },
      [&] {
        for (int i = 0; i < many; ++i) dispatch_semaphore_signal(semaphore);
      });
}

TEST(GlobalQueue, StarvesNoItemWhenAllOthersBlockInAGroup) {
  const dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  expectAnotherItemRunsBeside([&] { EXPECT_EQ(dispatch_group_wait(group, DISPATCH_TIME_FOREVER), 0); },
                              [&] { dispatch_group_leave(group); });
}

TEST(GlobalQueue, StarvesNoItemWhenAllOthersBlockInASynchronousCall) {
  const dispatch_queue_t queue = dispatch_queue_create("all wait for it");
  dispatch_suspend(queue);
  int passed = 0;
  expectAnotherItemRunsBeside([&] { dispatch_sync(queue, [&] { ++passed; }); },
                              [&] { dispatch_resume(queue); });
  EXPECT_EQ(dispatch_sync(queue, [&] { return passed; }), many);
}

TEST(GlobalQueue, StarvesNoDescriptorWhileItsItemsAreAtWorkAllTheTime) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
  std::atomic<bool> seen{false};
  EventSource source(ends[0], EPOLLIN, [&](std::uint32_t) { seen = true; });
  test::letThePoolWork();
  Occasion started;
  Occasion ended;
  dispatch_async(global(), [&] {
    started.happen();
    while (!seen.load()) std::this_thread::yield();
    ended.happen();
  });
  started.await();
  ASSERT_EQ(::write(ends[1], "x", 1), 1);
  ended.await();
  source.cancel();
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(GlobalQueue, StarvesNobodyWhileASerialQueueFeedsItselfForever) {
  const dispatch_queue_t endless = dispatch_queue_create("endless");
  std::atomic<bool> enough{false};
  const std::function<void()> step = [&] {
    if (!enough.load()) dispatch_async(endless, [&step] { step(); });
  };
  dispatch_async(endless, [&step] { step(); });
  Occasion ran;
  for (int i = 1; i <= 20; ++i) {
    dispatch_async(global(), [&] { ran.happen(); });
    ran.await(i);
  }
  enough = true;
  dispatch_sync(endless, [] {});
  dispatch_sync(endless, [] {});
}

TEST(GlobalQueue, RunsASynchronousItemOnTheCallingThreadAlsoFromItsOwnItems) {
  Occasion done;
  dispatch_async(global(), [&] {
    EXPECT_EQ(dispatch_sync(global(), [] { return std::this_thread::get_id(); }), std::this_thread::get_id());
    done.happen();
  });
  done.await();
}

TEST(GlobalQueue, RunsItsItemsWithEverySignalBlocked) {
  Occasion done;
  dispatch_async(global(), [&] {
    sigset_t blocked;
    sigemptyset(&blocked);
    EXPECT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &blocked), 0);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) EXPECT_EQ(sigismember(&blocked, signal), 1);
    done.happen();
  });
  done.await();
}

class GlobalQueueDeathTest : public ::testing::Test {
 protected:
  GlobalQueueDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(GlobalQueueDeathTest, ItCannotBeSuspendedOrResumed) {
  EXPECT_DEATH(dispatch_suspend(global()), "suspending the global queue");
  EXPECT_DEATH(dispatch_resume(global()), "resuming the global queue");
}

TEST_F(GlobalQueueDeathTest, ThereIsNoneOfAnotherPriorityOrWithFlags) {
  EXPECT_DEATH(static_cast<void>(dispatch_get_global_queue(2, 0)), "default priority and no flags");
  EXPECT_DEATH(static_cast<void>(dispatch_get_global_queue(0, 1)), "default priority and no flags");
}

}  // namespace
}  // namespace kelvane
