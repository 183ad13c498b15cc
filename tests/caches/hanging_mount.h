#pragma once

// A file system whose program never answers: every request waits until the program has ended.

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>
#include <stdexcept>
#include <string>

namespace kelvane::caches::tests {

/// Only in a private mount namespace. `owner` is the user that the mount options name.
class HangingMount {
 public:
  explicit HangingMount(std::string path, uid_t owner = 0)
      : path_(std::move(path)), program_(::open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK)) {
    const std::string user = std::to_string(owner);
    const std::string options = "fd=" + std::to_string(program_) + ",rootmode=40755,user_id=" + user +
                                ",group_id=" + user + ",allow_other";
    if (program_ < 0 ||
        ::mount("hanging", path_.c_str(), "fuse.hanging", MS_NODEV | MS_NOSUID, options.c_str()) != 0) {
      throw std::runtime_error("cannot mount at " + path_);
    }
  }
  ~HangingMount() {
    ::umount2(path_.c_str(), MNT_DETACH);
    ::close(program_);
  }
  HangingMount(const HangingMount&) = delete;
  HangingMount& operator=(const HangingMount&) = delete;

  /// The number of requests until now. Reads them, and answers only the kernel's first, FUSE_INIT: a process
  /// that waits for another request cannot even be killed.
  [[nodiscard]] int requests() {
    alignas(fuse_in_header) char buffer[1 << 17];
    ssize_t length = 0;
    while ((length = ::read(program_, buffer, sizeof buffer)) > 0) {
      const auto* const head = reinterpret_cast<const fuse_in_header*>(buffer);
      if (head->opcode == FUSE_INIT) {
        greet(head->unique);
      } else {
        ++requests_;
      }
    }
    return requests_;
  }

 private:
  void greet(std::uint64_t request) const {
    struct {
      fuse_out_header head{};
      fuse_init_out body{};
    } answer;
    answer.head = {sizeof answer, 0, request};
    answer.body.major = FUSE_KERNEL_VERSION;
    answer.body.minor = FUSE_KERNEL_MINOR_VERSION;
    answer.body.max_write = 4096;
    [[maybe_unused]] const ssize_t written = ::write(program_, &answer, sizeof answer);
  }

  const std::string path_;
  const int program_;
  int requests_ = 0;
};

}  // namespace kelvane::caches::tests
