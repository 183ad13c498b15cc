#include "daemon/process.h"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

#include "platform/host/notify.h"
#include "support/paths.h"
#include "support/space_thresholds.h"
#include "support/statistics.h"

namespace kelvane {
namespace {

constexpr int usage_status = 2;
constexpr int heap_kept_bytes = 16 << 20;
constexpr const char* help =
    "usage: kelvaned [--help] [--version]\n"
    "\n"
    "Frees space on the local volumes by asking the registered services. Takes no other arguments; these\n"
    "variables of the environment are read:\n"
    "  RUNTIME_DIRECTORY        sockets, notifications, statistics   (/run/kelvane)\n"
    "  STATE_DIRECTORY          settings                             (/var/lib/kelvane)\n"
    "  CONFIGURATION_DIRECTORY  grants in entitlements.d             (/etc/kelvane)\n"
    "  KELVANE_LOG_LEVEL        0 to 5                               (3)\n"
    "  KELVANE_LOW_SPACE        when a volume is low                 (10%,2G)\n"
    "  KELVANE_VERY_LOW_SPACE   when it is very low                  (5%,1G, or half of the above)\n"
    "The last two are a part of the volume, an amount (K, M, G, T), or both, of which the smaller counts; "
    "0%\n"
    "turns them off. SIGTERM ends the daemon at once.\n";

std::optional<std::string> makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0) {
    ::chmod(path.c_str(), 0755);  // whatever the file mode mask
    return std::nullopt;
  }
  const int error = errno;
  struct stat found {};
  if (error == EEXIST && ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) return std::nullopt;
  return fmt::format("cannot create the directory {}: {}", path, std::strerror(error));
}

}  // namespace

std::optional<int> answerCommandLine(int argc, const char* const* argv) {
  if (argc < 2) return std::nullopt;
  const std::string_view argument = argv[1];
  if (argc == 2 && argument == "--help") {
    fmt::print("{}", help);
    return 0;
  }
  if (argc == 2 && argument == "--version") {
    fmt::print("kelvaned {}\n", KELVANE_VERSION);
    return 0;
  }
  const std::string_view stranger = argument == "--help" || argument == "--version" ? argv[2] : argument;
  fmt::print(stderr, "kelvaned: unexpected argument \"{}\"; run kelvaned --help to see what there is\n",
             stranger);
  return usage_status;
}

std::optional<std::string> makeDirectories() {
  static_cast<void>(makeDirectory(stateDirectory()));  // without it, opening the settings says so
  if (auto failure = makeDirectory(runtimeDirectory())) return failure;
  return makeDirectory(runtimeDirectory() + "/services");
}

std::optional<std::string> takeSpaceThresholds() {
  const auto thresholds = spaceThresholdsOfEnvironment();
  if (const auto* problem = std::get_if<ThresholdProblem>(&thresholds)) return problem->text;
  setSpaceThresholds(std::get<SpaceThresholds>(thresholds));
  return std::nullopt;
}

void settleProcess() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  std::signal(SIGPIPE, SIG_IGN);
  // One heap for all threads: work moves between them, and what one allocates another frees. It keeps what it
  // has grown to; else each purge would give it back, and ask for it again page by page.
  ::mallopt(M_ARENA_MAX, 1);
  ::mallopt(M_TRIM_THRESHOLD, heap_kept_bytes);
  notify_set_directory(runtimeDirectory() + "/notify");
  setStatisticsFile(runtimeDirectory() + "/metrics.prom");
}

int refuseToStart(const std::string& what) {
  fmt::print(stderr, "kelvaned: {}\n", what);
  return 1;
}

}  // namespace kelvane
