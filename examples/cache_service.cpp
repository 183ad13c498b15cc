// A service for a folder of files: a cache, thumbnails, downloads that can be fetched again.
//
// When the daemon asks, it deletes the oldest files first, and stops as soon as it has freed its share. The
// more urgent the request, the younger the files it gives up: see givenUpAt.

#include <fcntl.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "examples/command_line.h"
#include "examples/urgency.h"
#include "kelvane/folder_purge.h"
#include "kelvane/service.h"

namespace kelvane::examples {
namespace {

using client::Cancellation;
using client::Purgeable;
using client::Request;
using client::ServiceState;

struct Settings {
  std::string folder;
  std::string volume;  // empty: whatever the daemon names
  Seconds lifetime = 0;
  bool verbose = false;
  client::ServiceOptions service;
};

template <class... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  fmt::print("{}\n", fmt::format(format, std::forward<Arguments>(arguments)...));
  std::fflush(stdout);
}

/// Constant after construction.
class CacheService final : public client::ServiceHandler {
 public:
  CacheService(int folder, const Settings& settings) : folder_(folder), settings_(settings) {}

  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) override {
    if (!concerns(request)) return Purgeable{};
    return Purgeable{client::purgeableBytes(folder_, optionsFor(request), cancellation)};
  }

  std::uint64_t purge(const Request& request, const Cancellation& cancellation) override {
    client::FolderPurge purged;
    if (concerns(request)) purged = client::purgeFolder(folder_, optionsFor(request), cancellation);
    if (settings_.verbose) {
      say("purge urgency={} asked={} gave={} files={}{}", request.urgency, request.amount, purged.freed,
          purged.files, cancellation.isCancelled() ? " cancelled" : "");
    }
    return purged.freed;
  }

  void stateChanged(ServiceState state, const std::string& reason) override {
    switch (state) {
      case ServiceState::registered:
      case ServiceState::serving:
        say("{} {}", state == ServiceState::serving ? "serving" : "registered", settings_.service.id);
        break;
      case ServiceState::waiting:
      case ServiceState::refused:
        fmt::print(stderr, "{}: {}\n", state == ServiceState::refused ? "refused" : "waiting", reason);
        break;
    }
  }

 private:
  [[nodiscard]] bool concerns(const Request& request) const {
    return settings_.volume.empty() || request.volume == settings_.volume;
  }
  [[nodiscard]] client::FolderPurgeOptions optionsFor(const Request& request) const {
    const auto now = static_cast<Seconds>(std::time(nullptr));
    return {.amount = request.amount,
            .order = client::PurgeOrder::oldestFirst,
            .modified_by = givenUpAt(request.urgency, now, settings_.lifetime)};
  }

  const int folder_;  // open until the process ends
  const Settings settings_;
};

void describe(CLI::App& app, Settings& settings) {
  constexpr Seconds day = 86'400;
  settings.lifetime = 30 * day;
  client::ServiceOptions& service = settings.service;
  service.id = "com.example.cache";
  app.add_option("folder,--folder", settings.folder, "The folder whose files may go")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--id", service.id, "The service's ID")->capture_default_str();
  auto* const socket =
      app.add_option("--socket", service.socket_path, "Be a declared service: make this socket");
  app.add_option(
         "--passed", service.passed_socket,
         "Be a declared service: serve the socket that the service manager hands over under this name")
      ->excludes(socket);
  app.add_option("--daemon", service.daemon_socket,
                 "The daemon's socket; default: kelvane.sock in $RUNTIME_DIRECTORY");
  app.add_option("--volume", settings.volume,
                 "Where the folder's volume is mounted; requests about others get 0");
  app.add_option("--lifetime", settings.lifetime,
                 "Seconds; urgency 1, 2, 3 give up files older than 3/4, 1/2, 1/4 of it, urgency 4 all")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--verbose", settings.verbose, "Print a line for each purge");
  app.footer(
      "Prints \"registered ID\" or \"serving ID\" when it is. Ends on SIGTERM or SIGINT.\n"
      "Exit codes: 0 ended by a signal, 2 cannot serve, above 100 wrong usage.");
}

/// The signals are blocked from before the first thread, so that they wait to be taken here.
int serveUntilSignal(const Settings& settings) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  const int folder = ::open(settings.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) {
    fmt::print(stderr, "{}: {}\n", settings.folder, std::strerror(errno));
    return exit_failed;
  }
  CacheService handler(folder, settings);
  const auto service = client::Service::start(handler, settings.service);
  if (!service) {
    fmt::print(stderr, "{}\n", service.error().reason);
    return exit_failed;
  }
  int signal = 0;
  sigwait(&ending, &signal);
  return exit_done;
}

}  // namespace
}  // namespace kelvane::examples

int main(int argc, char** argv) {
  using namespace kelvane::examples;
  return runProgram([&] {
    Settings settings;
    CLI::App app("Offers a folder of files for purging, oldest first", "cache_service");
    describe(app, settings);
    CLI11_PARSE(app, argc, argv);
    return serveUntilSignal(settings);
  });
}
