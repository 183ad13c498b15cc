// Preloaded into a program: reports the modification time as the time of the status change, so that a test
// can set the age of files. OLD_FILES_SLOWNESS is how many microseconds the disk takes to delete a file.

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>

extern "C" int statx(int directory, const char* __restrict path, int flags, unsigned mask,
                     struct statx* __restrict status) {
  using Function = int (*)(int, const char*, int, unsigned, struct statx*);
  static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statx"));
  const int result = real(directory, path, flags, mask, status);
  if (result == 0) status->stx_ctime = status->stx_mtime;
  return result;
}

extern "C" int unlinkat(int directory, const char* path, int flags) {
  using Function = int (*)(int, const char*, int);
  static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "unlinkat"));
  static const char* const slowness = std::getenv("OLD_FILES_SLOWNESS");
  if (slowness != nullptr) ::usleep(static_cast<unsigned>(std::atoi(slowness)));
  return real(directory, path, flags);
}
