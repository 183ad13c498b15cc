#include "bench/support/placement.h"

#include <sched.h>

namespace kelvane::bench {

bool placeApart(pid_t services) {
  cpu_set_t others;
  if (::sched_getaffinity(0, sizeof others, &others) != 0 || CPU_COUNT(&others) < 2) return false;
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &others)) --last;
  CPU_CLR(last, &others);
  cpu_set_t for_services;
  CPU_ZERO(&for_services);
  CPU_SET(last, &for_services);
  return ::sched_setaffinity(services, sizeof for_services, &for_services) == 0 &&
         ::sched_setaffinity(0, sizeof others, &others) == 0;
}

}  // namespace kelvane::bench
