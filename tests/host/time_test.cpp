#include "platform/host/time.h"

#include <gtest/gtest.h>

#include "platform/dispatch/manual_clock.h"

namespace kelvane::tests {
namespace {

TEST(HostClock, TicksAreTheClocksNanoseconds) {
  ManualClock clock;
  mach_timebase_info_data_t info{};
  ASSERT_EQ(mach_timebase_info(&info), KERN_SUCCESS);
  const std::uint64_t start = mach_absolute_time();
  clock.advance(12'345);
  EXPECT_EQ((mach_absolute_time() - start) * info.numer / info.denom, 12'345U);
}

TEST(HostClock, TheCalendarMovesWithTheClock) {
  ManualClock clock(0, 1'000'000);
  EXPECT_EQ(currentDate(), Date{1'000'000});
  clock.advance(2'000'000'000);
  EXPECT_EQ(currentDate(), Date{3'000'000});
}

}  // namespace
}  // namespace kelvane::tests
