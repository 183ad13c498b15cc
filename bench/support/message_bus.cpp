#include "bench/support/message_bus.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>

namespace kelvane::bench {
namespace {

void writeConfiguration(const std::string& file, const std::string& socket) {
  std::ofstream(file) << fmt::format(R"(<busconfig>
  <type>session</type>
  <listen>unix:path={}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
</busconfig>
)",
                                     socket);
}

}  // namespace

MessageBus::MessageBus() {
  const std::string file = folder_.path() + "/bus.conf";
  writeConfiguration(file, socket());
  std::array<int, 2> address{};
  if (::pipe2(address.data(), O_CLOEXEC) != 0) std::abort();
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::fcntl(address[1], F_SETFD, 0);
    ::execlp("dbus-daemon", "dbus-daemon", ("--config-file=" + file).c_str(), "--nofork", "--nopidfile",
             ("--print-address=" + std::to_string(address[1])).c_str(), nullptr);
    std::_Exit(127);
  }
  ::close(address[1]);
  pollfd printed{address[0], POLLIN, 0};  // the address, once it listens; without one it has ended
  if (::poll(&printed, 1, 10'000) != 1 || (printed.revents & POLLIN) == 0) {
    fmt::print(stderr, "dbus-daemon did not start\n");
    std::exit(1);
  }
  ::close(address[0]);
}

MessageBus::~MessageBus() {
  ::kill(process_, SIGTERM);
  ::waitpid(process_, nullptr, 0);
}

}  // namespace kelvane::bench
