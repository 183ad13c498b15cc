#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>

namespace kelvane::bench {

/// A real daemon, in temporary directories of its own.
class DaemonProcess {
 public:
  /// Starts it and returns when it accepts connections. Ends this program, with the reason, when it does not.
  explicit DaemonProcess(const std::string& program);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  [[nodiscard]] std::string socket() const { return directory_ + "/run/kelvane.sock"; }
  [[nodiscard]] pid_t ID() const { return process_; }
  /// Its greatest resident size so far, in KiB.
  [[nodiscard]] std::uint64_t peakMemory() const;

 private:
  std::string directory_;
  pid_t process_ = -1;
};

}  // namespace kelvane::bench
