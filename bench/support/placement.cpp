#include "bench/support/placement.h"

#include <sched.h>

namespace kelvane::bench {
namespace {

cpu_set_t processors() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  ::sched_getaffinity(0, sizeof allowed, &allowed);
  return allowed;
}

}  // namespace

bool place(pid_t thread, Side side) {
  static const cpu_set_t allowed = processors();  // before anything was placed
  if (CPU_COUNT(&allowed) < 2) return false;
  cpu_set_t chosen = allowed;
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &allowed)) --last;
  if (side == Side::far) {
    CPU_ZERO(&chosen);
    CPU_SET(last, &chosen);
  } else {
    CPU_CLR(last, &chosen);
  }
  return ::sched_setaffinity(thread, sizeof chosen, &chosen) == 0;
}

}  // namespace kelvane::bench
