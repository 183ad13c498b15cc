// How soon a volume that is being filled is given space, and whether that is soon enough.
//
// Three services hold purgeable files on a volume. A writer fills it at a steady rate; from the block that
// takes it below the threshold to the first request at a service is the reaction. It goes on writing for half
// a second after that, or until a write fails. The same, by turns, with the same services driven by a loop
// that looks every 10 or 60 seconds and asks for the same amount. Looks fall at random, and writers start at
// random moments.

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/reaction_cache.h"
#include "bench/support/reaction_volume.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t MiB = 1 << 20;
constexpr std::uint64_t ms = 1'000'000;
constexpr std::uint64_t volume_bytes = 2048 * MiB;
constexpr std::uint64_t threshold = volume_bytes / 10;
constexpr std::uint64_t clear_at = threshold + threshold / 4;
constexpr std::uint64_t purgeable_bytes = 1200 * MiB;
constexpr std::uint64_t asked_bytes = 250 * MiB;
constexpr std::size_t services = 3;
constexpr std::uint64_t goes_on = 500 * ms;  // after the first request

struct Outcome {
  std::optional<double> reaction;  // milliseconds; nothing when a write failed before any request
  bool failed = false;             // a write failed while purgeable bytes remained
  double overshoot = 0;            // MiB purged beyond what makes the volume clear
};

/// A daemon and the services that are checked in with it.
class Driver {
 public:
  /// `poll` 0: the daemon's own watcher. Else nanoseconds between two looks of a loop.
  Driver(const std::string& program, const ReactionVolume& volume, std::uint64_t poll)
      : poll_(poll), daemon_(program, {poll == 0 ? "KELVANE_LOW_SPACE=10%" : "KELVANE_LOW_SPACE=0%"}) {
    for (std::size_t i = 0; i < services; ++i) {
      caches_.push_back(std::make_unique<CacheProcess>(fmt::format("com.example.cache{}", i),
                                                       volume.folder(i), daemon_.socket()));
    }
  }
  [[nodiscard]] std::uint64_t poll() const { return poll_; }
  [[nodiscard]] std::string socket() const { return daemon_.socket(); }
  void clear() {
    for (const auto& cache : caches_) {
      cache->report().first_request_at = 0;
      cache->report().bytes_freed = 0;
    }
  }
  /// When the first of them was asked; 0 when none was.
  [[nodiscard]] std::uint64_t firstRequest() const {
    std::uint64_t first = 0;
    for (const auto& cache : caches_) {
      const std::uint64_t at = cache->report().first_request_at;
      if (at != 0 && (first == 0 || at < first)) first = at;
    }
    return first;
  }
  [[nodiscard]] std::uint64_t freed() const {
    std::uint64_t bytes = 0;
    for (const auto& cache : caches_) bytes += cache->report().bytes_freed;
    return bytes;
  }

 private:
  const std::uint64_t poll_;
  DaemonProcess daemon_;
  std::vector<std::unique_ptr<CacheProcess>> caches_;
};

std::mt19937 random_number{20260101};

void settle(ReactionVolume& volume, Driver& driver) {
  const auto pause = std::chrono::milliseconds(100 + random_number() % 400);
  volume.prepare(clear_at + (10 + random_number() % 200) * MiB);
  std::this_thread::sleep_for(pause);
  driver.clear();
}

/// Looks in turns and asks for space when there is too little, on a thread of its own so that the writer is
/// not held up by it.
class PollingLoop {
 public:
  PollingLoop(std::uint64_t interval, std::uint64_t first_look, const ReactionVolume& volume,
              const std::string& socket)
      : interval_(interval), next_(nanosecondsNow() + first_look), volume_(volume), client_(socket) {}
  ~PollingLoop() { finish(); }
  void look() {
    if (nanosecondsNow() < next_ || busy_) return;
    next_ += interval_;
    finish();
    busy_ = true;
    asking_ = std::thread([this] {
      while (volume_.freeSpace() < clear_at && client_.purge(volume_.path(), asked_bytes) > 0) {
      }
      busy_ = false;
    });
  }

 private:
  void finish() {
    if (asking_.joinable()) asking_.join();
  }
  const std::uint64_t interval_;
  std::uint64_t next_;
  const ReactionVolume& volume_;
  DaemonClient client_;
  std::atomic<bool> busy_{false};
  std::thread asking_;
};

Outcome round(ReactionVolume& volume, Driver& driver, std::uint64_t bytes_per_second) {
  settle(volume, driver);
  std::optional<PollingLoop> loop;
  if (driver.poll() != 0)
    loop.emplace(driver.poll(), random_number() % driver.poll(), volume, driver.socket());
  Writer writer(volume, bytes_per_second);
  Outcome outcome;
  std::uint64_t crossed_at = 0;
  std::uint64_t written_before = 0;
  while (true) {
    const bool written = writer.writeBlock();
    const std::uint64_t now = nanosecondsNow();
    if (loop) loop->look();
    const std::uint64_t first = driver.firstRequest();
    if (crossed_at == 0 && (first != 0 || volume.freeSpace() < threshold)) {
      crossed_at = now;
      written_before = writer.written();
    }
    if (!written && driver.freed() < purgeable_bytes) {
      outcome.failed = true;
      break;
    }
    if (first != 0 && now > first + goes_on) break;
  }
  loop.reset();
  if (const std::uint64_t first = driver.firstRequest()) {
    outcome.reaction = first > crossed_at ? static_cast<double>(first - crossed_at) / 1e6 : 0;
    const std::uint64_t needed = clear_at - threshold + (writer.written() - written_before);
    const std::uint64_t given = driver.freed();
    outcome.overshoot = given > needed ? static_cast<double>((given - needed) / MiB) : 0;
  }
  return outcome;
}

double quantile(std::vector<double> samples, double part) {
  std::sort(samples.begin(), samples.end());
  return samples[static_cast<std::size_t>(part * static_cast<double>(samples.size() - 1) + 0.5)];
}

void printRow(const std::string& writer, const std::string& driver, const std::vector<Outcome>& outcomes) {
  std::vector<double> reactions;
  std::vector<double> overshoots;
  std::size_t failed = 0;
  for (const Outcome& outcome : outcomes) {
    if (outcome.reaction) {
      reactions.push_back(*outcome.reaction);
      overshoots.push_back(outcome.overshoot);
    }
    failed += outcome.failed ? 1 : 0;
  }
  fmt::print("{:>14}  {:<16}{:>6}{:>9}", writer, driver, outcomes.size(), reactions.size());
  if (reactions.empty()) {
    fmt::print("{:>10}{:>10}{:>10}{:>8}{:>11}\n", "-", "-", "-", failed, "-");
  } else {
    fmt::print("{:>10.2f}{:>10.2f}{:>10.2f}{:>8}{:>11.0f}\n", quantile(reactions, 0.5),
               quantile(reactions, 0.99), quantile(reactions, 1), failed, quantile(overshoots, 0.5));
  }
  std::fflush(stdout);
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  using namespace kelvane::bench;
  int rounds = 50;
  int polled_rounds = 4;
  CLI::App app(
      "Measures how soon a volume that is being filled is given space. Needs to be root, for the volume.");
  app.add_option("--rounds", rounds, "rounds at each rate with the daemon's watcher")
      ->check(CLI::PositiveNumber);
  app.add_option("--polled-rounds", polled_rounds, "rounds with each polling loop")
      ->check(CLI::NonNegativeNumber);
  CLI11_PARSE(app, argc, argv);

  const std::string self = argv[0];
  const std::string daemon = self.substr(0, self.rfind('/') + 1) + "kelvaned";
  ReactionVolume volume(volume_bytes, services, purgeable_bytes);
  fmt::print("{:>14}  {:<16}{:>6}{:>9}{:>10}{:>10}{:>10}{:>8}{:>11}\n", "writer", "driven by", "rounds",
             "reacted", "median ms", "99th ms", "worst ms", "failed", "over MiB");
  for (const std::uint64_t rate : {50, 200, 500, 0}) {
    const std::string writer = rate != 0 ? fmt::format("{} MB/s", rate) : "unbounded";
    struct Kind {
      const char* name;
      std::uint64_t poll;
      int rounds;
    };
    for (const Kind& kind :
         {Kind{"the watcher", 0, rounds}, Kind{"a look in 10 s", 10'000 * ms, polled_rounds},
          Kind{"a look in 60 s", 60'000 * ms, polled_rounds}}) {
      if (kind.rounds == 0) continue;
      Driver driver(daemon, volume, kind.poll);
      std::vector<Outcome> outcomes;
      for (int i = 0; i < kind.rounds; ++i) outcomes.push_back(round(volume, driver, rate * 1'000'000));
      printRow(writer, kind.name, outcomes);
    }
  }
}
