#pragma once

// Real mounts for tests that nobody else sees. A program that wants them has, in exactly one of its files,
//
//   const bool private_mounts = tests::enterPrivateMounts();
//
// at namespace scope: it moves the process into a mount namespace of its own (and, when it is not root, into
// a user namespace of its own, which only a process with one thread can) before main starts any thread.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace kelvane::tests {

inline bool writeFile(const char* path, const std::string& text) {
  const int file = ::open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool written = ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(file);
  return written;
}

/// The present user, as root of a user namespace of his own.
inline bool enterPrivateUser() {
  const std::string user = std::to_string(::getuid());
  const std::string group = std::to_string(::getgid());
  return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeFile("/proc/self/setgroups", "deny") &&
         writeFile("/proc/self/uid_map", "0 " + user + " 1") &&
         writeFile("/proc/self/gid_map", "0 " + group + " 1");
}

/// False, with the reason in errno, when this machine does not allow it.
inline bool enterPrivateMounts() {
  if (::unshare(CLONE_NEWNS) != 0 && !enterPrivateUser()) return false;
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// A mount for as long as this lives, at a path that exists already. Throws when it cannot be made.
class PrivateMount {
 public:
  PrivateMount(const char* type, const std::string& source, std::string path, unsigned long flags = 0,
               const std::string& options = {})
      : path_(std::move(path)) {
    if (::mount(source.c_str(), path_.c_str(), type, flags, options.c_str()) != 0) {
      throw std::runtime_error("cannot mount " + path_ + ": " + std::strerror(errno));
    }
  }
  /// A tmpfs of that size ("16m", in whole pages).
  static PrivateMount tmpfs(std::string path, const std::string& size, unsigned long flags = 0) {
    return PrivateMount("tmpfs", "none", std::move(path), flags, "size=" + size);
  }
  ~PrivateMount() { ::umount2(path_.c_str(), MNT_DETACH); }
  PrivateMount(const PrivateMount&) = delete;
  PrivateMount& operator=(const PrivateMount&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

}  // namespace kelvane::tests
