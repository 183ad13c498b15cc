#include "caches/program/serve.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "caches/definition_store.h"
#include "caches/program/definition_watch.h"
#include "caches/program/log.h"
#include "caches/program/services.h"
#include "caches/workers.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/host/service_manager.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds default_patience(60);
constexpr milliseconds longest_look(1000);  // while a peer is connected
constexpr milliseconds shortest_look(20);
constexpr std::chrono::seconds purges_may_end(10);

/// How long to stay without calls; nothing when the variable is invalid.
std::optional<Clock::duration> patienceOfEnvironment() {
  const char* const text = std::getenv("KELVANE_CACHES_IDLE");
  if (text == nullptr) return default_patience;
  std::uint32_t seconds = 0;
  const char* const end = text + std::strlen(text);
  const auto read = std::from_chars(text, end, seconds);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return std::chrono::seconds(seconds);
}

/// A descriptor for SIGTERM and SIGINT. Blocks them in this thread and the threads that it starts.
FileDescriptor endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC));
}

/// Waits until there is a reason to end.
class Life {
 public:
  Life(Services& services, DefinitionWatch& changes, Clock::duration patience)
      : services_(services), changes_(changes), patience_(patience), signals_(endSignals()) {}

  void run() {
    while (!wait(untilNextLook())) {
      if (isOver() && services_.pauseIfIdle()) return;
    }
    services_.finish(Clock::now() + purges_may_end);
  }

 private:
  [[nodiscard]] Clock::duration patience() const {
    return changes_.happened() ? Clock::duration::zero() : patience_;
  }
  [[nodiscard]] bool isOver() const {
    const auto since = services_.idleSince();
    return since && Clock::now() - *since >= patience();
  }
  /// At least shortest_look, so that this thread does not spin.
  [[nodiscard]] milliseconds untilNextLook() const {
    const auto since = services_.idleSince();
    if (!since) return std::clamp(inMilliseconds(patience()), shortest_look, longest_look);
    return std::max(shortest_look, inMilliseconds(*since + patience() - Clock::now()));
  }
  static milliseconds inMilliseconds(Clock::duration time) { return std::chrono::ceil<milliseconds>(time); }

  /// Returns whether a signal asks the program to end.
  [[nodiscard]] bool wait(milliseconds time) {
    std::array<pollfd, 2> events{{{signals_.get(), POLLIN, 0}, {changes_.descriptor(), POLLIN, 0}}};
    const int most = static_cast<int>(std::min<std::int64_t>(time.count(), 3'600'000));
    if (::poll(events.data(), events.size(), most) <= 0) return false;
    if (events[1].revents != 0) changes_.read();
    return events[0].revents != 0;
  }

  Services& services_;
  DefinitionWatch& changes_;
  const Clock::duration patience_;
  const FileDescriptor signals_;
};

int refuse(tools::ExitCode code, const std::string& reason) {
  logLine(reason);
  return code;
}

}  // namespace

int serve() {
  std::signal(SIGPIPE, SIG_IGN);
  const auto patience = patienceOfEnvironment();
  if (!patience) {
    return refuse(tools::exit_usage,
                  fmt::format("invalid KELVANE_CACHES_IDLE \"{}\": expected a number of seconds",
                              std::getenv("KELVANE_CACHES_IDLE")));
  }
  if (passedSocketNames().empty()) {
    return refuse(tools::exit_usage,
                  "no socket was passed; kelvane-caches.target starts this program when it is "
                  "called, and `kelvane-caches --help` says what else it does");
  }
  // The watch begins before the files are read, so that no change is missed.
  DefinitionWatch changes(definitionDirectories());
  const DefinitionStore store = readDefinitions(definitionDirectories());
  for (const Problem& problem : store.problems) logLine(problem.text());
  const std::unique_ptr<Workers> workers = Workers::start(store.definitions);
  if (workers == nullptr)
    return refuse(tools::exit_failed, fmt::format("cannot start the spawner: {}", std::strerror(errno)));
  Services services(store, *workers);
  Life life(services, changes, *patience);
  if (const std::string reason = services.start(); !reason.empty()) return refuse(tools::exit_failed, reason);
  notifyReady();
  life.run();
  return tools::exit_met;
}

}  // namespace kelvane::caches
