#include "support/cached_path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

namespace kelvane {
namespace {

#ifdef RESOLVE_CACHED
constexpr std::uint64_t resolve_cached = RESOLVE_CACHED;
#else
constexpr std::uint64_t resolve_cached = 0x20;
#endif
#ifdef STATX_MNT_ID
constexpr unsigned mount_id = STATX_MNT_ID;
#else
constexpr unsigned mount_id = 0x1000;
#endif
/// The lookup also fails if another process renames something on the path meanwhile.
constexpr int most_tries = 16;

}  // namespace

FileDescriptor openCached(const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = resolve_cached;
  FileDescriptor result;
  for (int i = 0; i < most_tries && !result; ++i) {
    result =
        FileDescriptor(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    if (!result && errno != EAGAIN) break;
  }
  return result;
}

std::optional<CachedIdentity> cachedIdentity(int descriptor) {
  struct statx status {};
  const int flags = AT_EMPTY_PATH | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
  if (::statx(descriptor, "", flags, STATX_TYPE | mount_id, &status) != 0) return std::nullopt;
  if ((status.stx_mask & mount_id) == 0) return std::nullopt;
  return CachedIdentity{status.stx_mnt_id, status.stx_mode};
}

}  // namespace kelvane
