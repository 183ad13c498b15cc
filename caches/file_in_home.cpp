#include "caches/file_in_home.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {
namespace {

FileDescriptor openBelow(int directory, const char* path) {
  struct open_how how {};
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how)));
}

std::string whyRefused(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (status.st_uid != ::geteuid()) return "owned by another user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by other users";
  return {};
}

std::string readAll(int file, std::string& text) {
  text.resize(largest_file_in_home + 1);
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t n = ::read(file, text.data() + size, text.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::strerror(errno);
    if (n == 0) break;
    size += static_cast<std::size_t>(n);
  }
  text.resize(size);
  return size > largest_file_in_home ? "larger than 64 KiB" : std::string();
}

}  // namespace

FileInHome readFileInHome(int home_directory, const char* path) {
  FileInHome result;
  const FileDescriptor file = openBelow(home_directory, path);
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    if (errno == ENOENT) return result;
    result.problem = errno == ELOOP ? "a symbolic link is on the way to it" : std::strerror(errno);
    return result;
  }
  result.problem = whyRefused(status);
  if (result.problem.empty()) result.problem = readAll(file.get(), result.text);
  if (!result.problem.empty()) result.text.clear();
  return result;
}

}  // namespace kelvane::caches
