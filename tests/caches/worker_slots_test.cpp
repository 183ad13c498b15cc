// How many workers run at once.

#include "caches/worker_slots.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>

namespace kelvane::caches::tests {
namespace {

using Slot = WorkerSlots::Slot;

std::size_t takeAll(WorkerSlots::Call& call, uid_t first, uid_t users) {
  std::size_t taken = 0;
  for (uid_t i = 0; i < users; ++i) taken += call.take(first + i) == Slot::taken ? 1 : 0;
  return taken;
}

TEST(WorkerSlots, AreBoundedInAllAndForEachUser) {
  WorkerSlots slots;
  WorkerSlots::Call call(slots);
  for (std::size_t i = 0; i < WorkerSlots::most_of_one_user; ++i) EXPECT_EQ(call.take(1), Slot::taken);
  EXPECT_EQ(call.take(1), Slot::busy);
  EXPECT_EQ(takeAll(call, 100, 100), WorkerSlots::most - WorkerSlots::most_of_one_user);
  EXPECT_EQ(call.take(2), Slot::busy);
  call.giveBack(1);
  EXPECT_EQ(call.take(2), Slot::taken);
}

TEST(WorkerSlots, AreSharedEquallyAmongCalls) {
  WorkerSlots slots;
  WorkerSlots::Call first(slots);
  WorkerSlots::Call second(slots);
  EXPECT_EQ(takeAll(first, 100, 100), WorkerSlots::most / 2);
  EXPECT_EQ(takeAll(second, 300, 100), WorkerSlots::most / 2);
}

TEST(WorkerSlots, AreDeniedToAUserWhoseWorkerDoesNotEnd) {
  WorkerSlots slots;
  WorkerSlots::Call call(slots);
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
  ASSERT_EQ(::send(ends[1], "late words", 10, 0), 10);
  ASSERT_EQ(call.take(1), Slot::taken);
  call.abandon(1, FileDescriptor(ends[0]));
  EXPECT_NE(call.take(1), Slot::taken);
  EXPECT_EQ(call.take(2), Slot::taken);
  ::close(ends[1]);
  EXPECT_EQ(call.take(1), Slot::taken);
}

TEST(WorkerSlots, RememberWhoWasLate) {
  WorkerSlots slots;
  EXPECT_FALSE(slots.wasLate(1));
  slots.setLate(1, true);
  EXPECT_TRUE(slots.wasLate(1));
  slots.setLate(1, false);
  EXPECT_FALSE(slots.wasLate(1));
}

}  // namespace
}  // namespace kelvane::caches::tests
