#pragma once

// A file system whose program never answers: whoever asks it for anything waits until the program is gone.

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>
#include <stdexcept>
#include <string>

namespace kelvane::caches::tests {

/// Only in a mount namespace of one's own. `owner` is the user who seems to have mounted it.
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

  /// Requests that nobody has answered, apart from the first, with which the kernel greets the program. Takes
  /// them, so that who asked cannot be killed any more.
  [[nodiscard]] int requests() const {
    int count = -1;
    char buffer[1 << 17];
    while (::read(program_, buffer, sizeof buffer) > 0) ++count;
    return count;
  }

 private:
  const std::string path_;
  const int program_;
};

}  // namespace kelvane::caches::tests
