#include "tests/caches/moved_time.h"

#include <sys/time.h>

// Takes the place of the C library's for all that is linked into this program.
extern "C" std::time_t time(std::time_t* result) noexcept {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const std::time_t moved = now.tv_sec + kelvane::caches::tests::ahead;
  if (result != nullptr) *result = moved;
  return moved;
}
