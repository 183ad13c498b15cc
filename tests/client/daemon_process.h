#pragma once

// The stand-in daemon as a child process, spoken to in lines.

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::tests {

class DaemonProcess {
 public:
  /// Returns when the socket is open.
  explicit DaemonProcess(const std::string& socket_path, const std::vector<std::string>& arguments = {});
  ~DaemonProcess() { end(SIGKILL); }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  void tell(const std::string& line) const;
  /// The next line it writes; "the end" when it has ended.
  std::string hear();
  /// Reads on to the line.
  void await(const std::string& line);
  /// Tells it something and returns what it answers to that.
  std::string ask(const std::string& line);
  /// Ends it and returns when it has.
  void end(int signal);

 private:
  pid_t pid_ = -1;
  FileDescriptor input_;
  std::FILE* output_ = nullptr;
};

}  // namespace kelvane::tests
