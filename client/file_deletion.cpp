#include "client/file_deletion.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include "client/shared_extents.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {
namespace {

constexpr std::uint64_t block = 512;

/// The kernel grants a write lease only when no other process has the file open. After the last name is gone
/// nobody can open the file, so the answer stays true and nobody can break the lease.
bool isHeld(const FileDescriptor& file) {
  return file && ::fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0 && errno == EAGAIN;
}

}  // namespace

FileDeletion deleteFile(int directory, const char* name, std::uint64_t bytes) {
  if (::unlinkat(directory, name, 0) == 0) return {true, bytes, 0, 0, 0};
  return {false, 0, 0, 0, errno == ENOENT || errno == EISDIR ? 0 : errno};
}

FileDeletion deleteFileAsking(int directory, const char* name, std::uint64_t bytes, bool extents) {
  const FileDescriptor file(
      ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  const std::uint64_t shared = file && extents ? sharedBytes(file.get()) : 0;
  FileDeletion gone = deleteFile(directory, name, 0);
  if (!gone.is) return gone;
  struct stat now {};
  if (file) {
    if (::fstat(file.get(), &now) != 0 || now.st_nlink != 0) return gone;
    bytes = static_cast<std::uint64_t>(now.st_blocks) * block;
  }
  gone.shared = std::min(shared, bytes);
  (isHeld(file) ? gone.held : gone.freed) = bytes - gone.shared;
  return gone;
}

}  // namespace kelvane::client
