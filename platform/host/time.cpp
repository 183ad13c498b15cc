#include "platform/host/time.h"

#include "platform/dispatch/clock.h"
#include "platform/dispatch/time.h"

namespace kelvane {

std::uint64_t mach_absolute_time() { return Clock::current().now(); }

kern_return_t mach_timebase_info(mach_timebase_info_data_t* info) {
  *info = {1, 1};  // the clock counts nanoseconds
  return KERN_SUCCESS;
}

void usleep(std::uint32_t microseconds) {
  dispatch_sleep_until(dispatch_time(DISPATCH_TIME_NOW, std::int64_t{microseconds} * 1000));
}

Date currentDate() { return Date{Clock::current().calendarMicroseconds()}; }

}  // namespace kelvane
