#include "caches/trusted_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "support/grants.h"

namespace kelvane::caches {
namespace {

std::string errorText(int error) {
  return error == ELOOP ? "it is a symbolic link: expected a file, or a link to /dev/null"
                        : std::strerror(error);
}

}  // namespace

TrustedFile readTrustedFile(int directory, const char* name, std::size_t cap) {
  TrustedFile result;
  const FileDescriptor file(
      ::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    result.problem = errorText(errno);
    return result;
  }
  if (const char* reason = whyDistrusted(status)) {
    result.problem = reason;
    return result;
  }
  result.text.resize(cap + 1);
  std::size_t size = 0;
  while (size < result.text.size()) {
    const ssize_t n = ::read(file.get(), result.text.data() + size, result.text.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) result.problem = std::strerror(errno);
    if (n <= 0) break;
    size += static_cast<std::size_t>(n);
  }
  if (size > cap)
    result.problem =
        cap == 0 ? "it is not empty" : "it is larger than " + std::to_string(cap / 1024) + " KiB";
  result.text.resize(result.problem.empty() ? size : 0);
  return result;
}

FileDescriptor openTrustedDirectory(const std::string& path, std::string& problem) {
  FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW));
  struct stat status {};
  if (!directory || ::fstat(directory.get(), &status) != 0) {
    const int error = errno;
    problem = error == ELOOP ? "it is a symbolic link" : std::strerror(error);
    errno = error;
    return {};
  }
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
    problem = "the directory is owned by another user";
  } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    problem = "other users can write to the directory";
  }
  errno = EACCES;
  return problem.empty() ? std::move(directory) : FileDescriptor();
}

}  // namespace kelvane::caches
