#pragma once

#include <sys/types.h>

namespace kelvane::bench {

/// Gives `services` the last processor that this process may use, and itself, with all that it starts from
/// now on, the others. Left to the scheduler, the two sides of a comparison sometimes share a processor and
/// take turns there, and sometimes work at once on two; that alone changes what a round takes by half. False,
/// and nothing changed, where there is one processor only. For programs that have no threads yet.
bool placeApart(pid_t services);

}  // namespace kelvane::bench
