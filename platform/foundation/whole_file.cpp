#include "platform/foundation/whole_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>

#include "platform/foundation/file_descriptor.h"
#include "platform/foundation/long_path.h"

namespace kelvane {
namespace {

WholeFile failed(const std::string& path, std::string_view why) {
  return {{}, fmt::format("{}: {}", path, why)};
}
WholeFile failedBySystem(const std::string& path) { return failed(path, std::strerror(errno)); }

std::string_view kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "is a directory, not a regular file";
  if (S_ISFIFO(mode)) return "is a FIFO, not a regular file";
  if (S_ISSOCK(mode)) return "is a socket, not a regular file";
  return "is a device, not a regular file";
}

std::string tooLarge(std::size_t cap) { return fmt::format("is larger than {} bytes", cap); }

/// Fills `bytes` from `filled` on, up to its end or the end of the file, and cuts it off there; false with
/// errno set when reading fails. A file that has as many bytes as it said is not asked for more.
bool readFully(int file, std::size_t filled, std::size_t said, Data::Bytes& bytes) {
  while (filled < bytes.size()) {
    const ssize_t count = ::read(file, bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    filled += static_cast<std::size_t>(count);
    if (count == 0 || (said != 0 && filled == said)) break;
  }
  bytes.resize(filled);
  return true;
}

/// The file may grow while it is read and a file of /proc says it is empty: one byte more than the cap is
/// asked for.
WholeFile readOpened(int file, std::size_t size, const std::string& path, std::size_t cap) {
  cap = std::min(cap, std::numeric_limits<std::size_t>::max() / 4);
  WholeFile result;
  for (std::size_t room = std::min<std::size_t>(size != 0 ? size : 4096, cap) + 1;;
       room = std::min(room * 2, cap + 1)) {
    const std::size_t filled = result.bytes.size();
    result.bytes.resize(room);
    if (!readFully(file, filled, size, result.bytes)) return failedBySystem(path);
    if (result.bytes.size() < room) return result;
    if (room > cap) return failed(path, tooLarge(cap));
  }
}

}  // namespace

WholeFile readWholeFile(const std::string& path, std::size_t cap) {
  if (path.find('\0') != std::string::npos) return failed(path, "holds a NUL byte in its name");
  const auto reachable = reachablePath(path);
  if (!reachable) return failedBySystem(path);
  const int at = reachable->at();
  const char* const rest = reachable->rest.c_str();
  struct stat status {};
  // Asked before opening too: opening alone already disturbs some devices and the writer of a FIFO.
  if (::fstatat(at, rest, &status, 0) != 0) return failedBySystem(path);
  if (!S_ISREG(status.st_mode)) return failed(path, kindOf(status.st_mode));
  const FileDescriptor file(::openat(at, rest, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!file || ::fstat(file.get(), &status) != 0) return failedBySystem(path);
  if (!S_ISREG(status.st_mode)) return failed(path, kindOf(status.st_mode));
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > cap) return failed(path, tooLarge(cap));
  return readOpened(file.get(), size, path, cap);
}

}  // namespace kelvane
