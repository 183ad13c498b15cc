// A service for a directory of files: a cache, thumbnails, downloads that can be fetched again.
//
// When the daemon asks, it deletes the oldest files first, and stops as soon as it has freed its share. The
// more urgent the request, the younger the files it gives up: see rulesFor. It answers 0 to requests about
// other volumes than that of the directory.

#include <csignal>
#include <cstdio>

#include "examples/command_line.h"
#include "examples/urgency.h"
#include "kelvane/directory_service.h"

namespace kelvane::examples {
namespace {

using client::CachePurge;
using client::DirectoryService;
using client::Request;
using client::ServiceState;

struct Settings {
  std::string directory;
  std::int64_t lifetime = 2'592'000;  // seconds: 30 days
  std::int64_t youngest = 3'600;      // seconds
  bool verbose = false;
  client::ServiceOptions service;
};

template <class... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  fmt::print("{}\n", fmt::format(format, std::forward<Arguments>(arguments)...));
  std::fflush(stdout);
}

void sayPurged(const Request& request, const CachePurge& purge) {
  say("purge urgency={} asked={} gave={} files={}{}", request.urgency, request.amount, purge.freed,
      purge.files, purge.end == CachePurge::End::cancelled ? " cancelled" : "");
}

void sayState(const std::string& id, ServiceState state, const std::string& reason) {
  switch (state) {
    case ServiceState::registered:
    case ServiceState::serving:
      say("{} {}", state == ServiceState::serving ? "serving" : "registered", id);
      break;
    case ServiceState::waiting:
    case ServiceState::refused:
      fmt::print(stderr, "{}: {}\n", state == ServiceState::refused ? "refused" : "waiting", reason);
      break;
  }
}

client::DirectoryServiceOptions optionsFor(const Settings& settings) {
  client::DirectoryServiceOptions options;
  options.service = settings.service;
  options.service.directories = {settings.directory};
  options.rules = rulesFor(std::chrono::seconds(settings.lifetime), std::chrono::seconds(settings.youngest));
  if (settings.verbose) options.purged = sayPurged;
  options.state_changed = [id = settings.service.id](ServiceState state, const std::string& reason) {
    sayState(id, state, reason);
  };
  return options;
}

void describe(CLI::App& app, Settings& settings) {
  client::ServiceOptions& service = settings.service;
  service.id = "com.example.cache";
  app.add_option("folder,--folder", settings.directory, "The directory whose files may go")
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
  app.add_option("--lifetime", settings.lifetime,
                 "Seconds; urgency 1, 2, 3 give up files older than 3/4, 1/2, 1/4 of it, urgency 4 all")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  app.add_option("--youngest", settings.youngest, "Seconds; no file younger than this goes at any urgency")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--verbose", settings.verbose, "Print a line for each purge");
  app.footer(
      "A file is as old as the newest of the times at which it was modified, changed and read.\n"
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
  const auto service = DirectoryService::start(optionsFor(settings));
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
    CLI::App app("Offers a directory of files for purging, oldest first", "cache_service");
    describe(app, settings);
    CLI11_PARSE(app, argc, argv);
    return serveUntilSignal(settings);
  });
}
