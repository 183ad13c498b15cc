#include "bench/support/daemon_process.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kelvane::bench {
namespace {

[[noreturn]] void giveUp(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(1);
}

void writeGrant(const std::string& directory) {
  std::filesystem::create_directories(directory + "/etc/entitlements.d");
  std::ofstream grant(directory + "/etc/entitlements.d/bench.plist");
  grant << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>user</key><integer>" << ::getuid()
        << "</integer><key>com.orvel.private.Kelvane</key><array><string>CLIENT_ENTITLEMENT</string>"
           "<string>SERVICE_ENTITLEMENT</string><string>PURGE_ENTITLEMENT</"
           "string><string>PURGEABLE_ENTITLEMENT</string></array></dict></plist>\n";
}

}  // namespace

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& environment)
    : program_(program), environment_(environment), launched_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  for (const char* part : {"/run", "/run/notify", "/state"})
    std::filesystem::create_directories(directory_ + part);
  writeGrant(directory_);
  ::inotify_add_watch(launched_.get(), (directory_ + "/run/notify").c_str(), IN_MODIFY);
  start();
}

DaemonProcess::~DaemonProcess() {
  if (process_ > 0) end();
}

void DaemonProcess::end() {
  ::kill(process_, SIGTERM);
  int status = -1;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  if (status != 0) giveUp("the daemon " + program_ + " did not end well");
}

void DaemonProcess::start() {
  std::array<char, 4096> earlier;
  while (::read(launched_.get(), earlier.data(), earlier.size()) > 0) continue;
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setenv("RUNTIME_DIRECTORY", (directory_ + "/run").c_str(), 1);
    ::setenv("STATE_DIRECTORY", (directory_ + "/state").c_str(), 1);
    ::setenv("CONFIGURATION_DIRECTORY", (directory_ + "/etc").c_str(), 1);
    ::setenv("KELVANE_LOG_LEVEL", "2", 1);
    for (const std::string& variable : environment_) ::putenv(const_cast<char*>(variable.c_str()));
    ::execl(program_.c_str(), program_.c_str(), nullptr);
    std::_Exit(127);
  }
  // It says so itself when it is open for business.
  pollfd started{launched_.get(), POLLIN, 0};
  if (::poll(&started, 1, 10'000) != 1) giveUp("the daemon " + program_ + " did not start");
}

std::uint64_t DaemonProcess::numberInStatus(const char* name) const {
  std::ifstream status("/proc/" + std::to_string(process_) + "/status");
  std::string word;
  while (status >> word) {
    if (word == name && status >> word) return std::stoull(word);
  }
  return 0;
}

}  // namespace kelvane::bench
