#pragma once

// A volume on a block device whose file system is a program that never answers: this one. Needs root's
// rights, for the loop device, and a private mount namespace (private_mounts.h).

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::tests {

class HangingVolume {
 public:
  /// `type` is "fuseblk", or that with a dot and a name. The image is made, the path is there already.
  HangingVolume(const std::string& type, const std::string& image, std::string path)
      : path_(std::move(path)), loop_(loopDevice(image)) {
    const std::string options = "fd=" + std::to_string(program_.get()) +
                                ",rootmode=40755,user_id=0,group_id=0,allow_other,blksize=512";
    if (::mount(device_.c_str(), path_.c_str(), type.c_str(), MS_NODEV | MS_NOSUID, options.c_str()) != 0)
      throw std::runtime_error("cannot mount " + type + " at " + path_);
  }
  ~HangingVolume() { end(); }
  HangingVolume(const HangingVolume&) = delete;
  HangingVolume& operator=(const HangingVolume&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The program dies: callers that wait for it get an error.
  void end() {
    ::umount2(path_.c_str(), MNT_DETACH);
    program_.reset();
  }

 private:
  FileDescriptor loopDevice(const std::string& image) {
    const FileDescriptor file(::open(image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file || ::ftruncate(file.get(), 1 << 20) != 0) throw std::runtime_error("cannot make " + image);
    const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    for (int tries = 0; tries < 100; ++tries) {  // another process may be faster
      device_ = "/dev/loop" + std::to_string(::ioctl(control.get(), LOOP_CTL_GET_FREE));
      FileDescriptor loop(::open(device_.c_str(), O_RDWR | O_CLOEXEC));
      loop_config config{};
      config.fd = static_cast<unsigned>(file.get());
      config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
      if (loop && ::ioctl(loop.get(), LOOP_CONFIGURE, &config) == 0) return loop;
    }
    throw std::runtime_error("no loop device can be had");
  }

  const std::string path_;
  std::string device_;
  const FileDescriptor loop_;
  FileDescriptor program_{::open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK)};
};

}  // namespace kelvane::tests
