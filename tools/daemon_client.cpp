#include "tools/daemon_client.h"

#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>

#include "client/daemon_socket.h"

namespace kelvane::tools {

std::string socketOf(const Options& options) { return client::daemonSocket(options.daemon); }

std::string runtimePathOf(const Options& options, const char* name) {
  const std::string socket = socketOf(options);
  const std::size_t slash = socket.rfind('/');
  return (slash == std::string::npos ? "" : socket.substr(0, slash + 1)) + name;
}

std::string launchSocketOf(const Options& options) { return runtimePathOf(options, "launch.sock"); }

Problem problemOf(const client::Error& error, const std::string& socket) {
  switch (error.kind) {
    case client::Failure::noDaemon:
      if (::access(socket.c_str(), W_OK) != 0 && errno == EACCES)
        return {exit_refused, fmt::format("{} is not for this user; ask as root", socket)};
      return {exit_no_daemon,
              fmt::format("no daemon listens on {}; start it with `systemctl start kelvane`, or "
                          "name its socket with --daemon",
                          socket)};
    case client::Failure::refused:
      return {exit_refused, error.reason + "; ask as root or as a member of the group kelvane"};
    case client::Failure::badRequest:
      return {exit_usage, "the daemon says: " + error.reason};
    case client::Failure::connectionLost:
      break;
  }
  return {exit_no_answer, error.reason + "; `journalctl -u kelvane` may say why"};
}

}  // namespace kelvane::tools
