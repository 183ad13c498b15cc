// Socket activation: descriptors from 3 on, which the service manager left open. $LISTEN_PID is the process
// they are for, $LISTEN_FDS their number, and $LISTEN_FDNAMES their names, separated by colons.

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/host/environment_number.h"
#include "platform/host/service_manager.h"

namespace kelvane {
namespace {

constexpr int first_descriptor = 3;  // SD_LISTEN_FDS_START

struct PassedSocket {
  std::string name;
  FileDescriptor descriptor;  // empty once it is taken
};

/// Takes the first name off the list.
std::string takeName(std::string_view& names, bool& any_left) {
  if (!any_left) return "unknown";
  const std::size_t colon = names.find(':');
  std::string name(names.substr(0, colon));
  any_left = colon != std::string_view::npos;
  if (any_left) names.remove_prefix(colon + 1);
  return name;
}

/// How many file descriptors this process was given; 0 if the environment names none.
int countInEnvironment() {
  if (environmentNumber("LISTEN_PID") != static_cast<std::uint64_t>(::getpid())) return 0;
  const std::uint64_t claimed = environmentNumber("LISTEN_FDS").value_or(0);
  // If the number is too high it is wrong, and none of the descriptors can be trusted.
  for (std::uint64_t i = 0; i < claimed; ++i) {
    if (::fcntl(first_descriptor + static_cast<int>(i), F_GETFD) < 0) return 0;
  }
  return static_cast<int>(claimed);
}

std::vector<PassedSocket> readEnvironment() {
  const char* const variable = std::getenv("LISTEN_FDNAMES");
  std::string_view names = variable != nullptr ? variable : "";
  bool any_left = !names.empty();
  std::vector<PassedSocket> passed;
  const int count = countInEnvironment();
  for (int i = 0; i < count; ++i) {
    FileDescriptor descriptor(first_descriptor + i);
    ::fcntl(descriptor.get(), F_SETFD, FD_CLOEXEC);
    passed.push_back({takeName(names, any_left), std::move(descriptor)});
  }
  return passed;
}

/// The descriptors passed to this process. Read once: after a descriptor is taken and closed, its number may
/// be reused.
class PassedSockets {
 public:
  static PassedSockets& shared() {
    static PassedSockets& it = *new PassedSockets;
    return it;
  }

  std::vector<std::string> names() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const PassedSocket& passed : read()) result.push_back(passed.name);
    return result;
  }

  FileDescriptor take(const std::string& name) {
    const std::lock_guard lock(mutex_);
    for (PassedSocket& passed : read()) {
      if (passed.name == name && passed.descriptor) return std::move(passed.descriptor);
    }
    return {};
  }

 private:
  std::vector<PassedSocket>& read() {
    // After fork, nothing was passed to the child; the descriptors that it shares with its parent stay open.
    if (reader_ == ::getpid()) return passed_;
    for (PassedSocket& passed : passed_) static_cast<void>(passed.descriptor.release());
    passed_ = readEnvironment();
    reader_ = ::getpid();
    return passed_;
  }

  std::mutex mutex_;  // guards all below
  std::vector<PassedSocket> passed_;
  pid_t reader_ = 0;  // the process that has read the environment
};

}  // namespace

std::vector<std::string> passedSocketNames() { return PassedSockets::shared().names(); }

FileDescriptor takePassedSocket(const std::string& name) { return PassedSockets::shared().take(name); }

}  // namespace kelvane
