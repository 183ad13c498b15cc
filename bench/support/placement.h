#pragma once

#include <sys/types.h>

namespace kelvane::bench {

/// Left to the scheduler, the two sides of a comparison sometimes share a processor and take turns there, and
/// sometimes work at once on two; that alone changes what a round takes by half. So one side is given the
/// last processor that this process may use, and the other side those before it.
enum class Side { near, far };

/// Places a thread, or a process that has only one, and what either starts from now on; 0 is the calling
/// thread. False, and nothing changed, where there is one processor only.
bool place(pid_t thread, Side side);

}  // namespace kelvane::bench
