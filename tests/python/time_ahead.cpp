// Preloaded into a program, moves its clock KELVANE_TEST_AHEAD seconds into the future, so that new files are
// old. The time of a file's status change cannot be set.

#include <dlfcn.h>
#include <time.h>
#include <cstdlib>

namespace {

time_t ahead() {
  static const time_t seconds = std::atol(std::getenv("KELVANE_TEST_AHEAD"));
  return seconds;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  using Function = int (*)(clockid_t, timespec*);
  static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, now);
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) now->tv_sec += ahead();
  return result;
}

extern "C" time_t time(time_t* now) noexcept {
  timespec exactly{};
  clock_gettime(CLOCK_REALTIME, &exactly);
  if (now != nullptr) *now = exactly.tv_sec;
  return exactly.tv_sec;
}
