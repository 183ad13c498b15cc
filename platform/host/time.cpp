#include "platform/host/time.h"

#include "platform/dispatch/clock.h"

namespace kelvane {

std::uint64_t mach_absolute_time() { return Clock::current().now(); }

kern_return_t mach_timebase_info(mach_timebase_info_data_t* info) {
  *info = {1, 1};  // the clock counts nanoseconds
  return KERN_SUCCESS;
}

Date currentDate() { return Date{Clock::current().calendarMicroseconds()}; }

}  // namespace kelvane
