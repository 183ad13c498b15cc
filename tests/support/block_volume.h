#pragma once

// A new file system in an image file, mounted while this lives. Needs root's rights, for the loop device, and
// a private mount namespace (tests/support/private_mounts.h).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::tests {

class BlockVolume {
 public:
  /// `type` is what follows "mkfs.", options included. Both paths are made by the caller, but for the image.
  BlockVolume(const std::string& type, std::size_t bytes, const std::string& image, std::string path)
      : path_(std::move(path)) {
    const FileDescriptor file(::open(image.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(::ftruncate(file.get(), static_cast<off_t>(bytes)), 0);
    succeed("mkfs." + type + " -q " + image);
    succeed("mount -o loop " + image + " " + path_);
  }
  ~BlockVolume() { ::umount2(path_.c_str(), 0); }
  BlockVolume(const BlockVolume&) = delete;
  BlockVolume& operator=(const BlockVolume&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// Once all is written, and freed: xfs does that a moment later.
  [[nodiscard]] std::uint64_t settledFreeBytes() const {
    std::uint64_t before = 0;
    for (int same = 0; same < 3;) {
      const FileDescriptor volume(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
      ::syncfs(volume.get());
      std::this_thread::sleep_for(std::chrono::milliseconds(4));
      const std::uint64_t now = freeBytes();
      same = now == before ? same + 1 : 0;
      before = now;
    }
    return before;
  }
  [[nodiscard]] std::uint64_t freeBytes() const {
    struct statvfs status {};
    EXPECT_EQ(::statvfs(path_.c_str(), &status), 0);
    return status.f_bfree * status.f_frsize;
  }

 private:
  static void succeed(const std::string& command) {
    EXPECT_EQ(std::system(("PATH=$PATH:/usr/sbin:/sbin; " + command + " >/dev/null 2>&1").c_str()), 0)
        << command;
  }

  const std::string path_;
};

}  // namespace kelvane::tests
