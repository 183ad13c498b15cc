#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/support/temporary_folder.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::bench {

/// A real daemon, in temporary directories of its own.
class DaemonProcess {
 public:
  /// Starts it and returns when it accepts connections. Ends this program, with the reason, when it does not.
  /// `environment` is of "NAME=value"; without more, no volume is ever low for it.
  explicit DaemonProcess(const std::string& program,
                         const std::vector<std::string>& environment = {"KELVANE_LOW_SPACE=0%"});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  /// Ends it by SIGTERM; returns when it is gone. Ends this program when its status is not 0.
  void end();
  /// Starts it again, in the same directories, after it was ended.
  void start();

  [[nodiscard]] std::string socket() const { return directory_ + "/run/kelvane.sock"; }
  [[nodiscard]] pid_t ID() const { return process_; }
  /// Its resident size now, in KiB, and the greatest so far.
  [[nodiscard]] std::uint64_t memory() const { return numberInStatus("VmRSS:"); }
  [[nodiscard]] std::uint64_t peakMemory() const { return numberInStatus("VmHWM:"); }

 private:
  [[nodiscard]] std::uint64_t numberInStatus(const char* name) const;

  const std::string program_;
  const std::vector<std::string> environment_;
  const TemporaryFolder folder_;
  const std::string directory_ = folder_.path();
  // Kept for all starts: to close it takes the kernel up to ten milliseconds, which are not the daemon's.
  const FileDescriptor launched_;
  pid_t process_ = -1;
};

}  // namespace kelvane::bench
