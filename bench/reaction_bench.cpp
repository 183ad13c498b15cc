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
#include <cmath>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"
#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/program.h"
#include "bench/support/reaction_cache.h"
#include "bench/support/reaction_volume.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t MiB = 1 << 20;
constexpr std::uint64_t ms = 1'000'000;
constexpr std::uint64_t volume_bytes = 2048 * MiB;
constexpr std::uint64_t threshold = volume_bytes / 10;
constexpr std::uint64_t clear_at = threshold + threshold / 4;
constexpr std::uint64_t cached_bytes = 1200 * MiB;
constexpr std::uint64_t asked_bytes = 250 * MiB;
constexpr std::size_t services = 3;
constexpr std::uint64_t goes_on = 500 * ms;  // after the first request

struct Outcome {
  double reaction = 0;    // milliseconds; so far, when a write failed before any request
  bool is_least = false;  // a write failed before any request
  bool is_early = false;  // a request before the volume was low: says nothing
  bool failed = false;    // a write failed while purgeable bytes remained
  double overshoot = 0;   // MiB purged beyond what makes the volume clear
  Series fill;            // MiB free against milliseconds since the crossing
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

/// What was free, and when.
class Trace {
 public:
  void add(std::uint64_t at, std::uint64_t free_bytes) {
    if (!at_.empty() && at < at_.back() + 2 * ms) return;
    at_.push_back(at);
    free_.push_back(static_cast<double>(free_bytes) / MiB);
  }
  [[nodiscard]] Series since(std::uint64_t moment) const {
    Series series{"", {}, free_};
    for (const std::uint64_t at : at_)
      series.x.push_back((static_cast<double>(at) - static_cast<double>(moment)) / 1e6);
    return series;
  }

 private:
  std::vector<std::uint64_t> at_;
  std::vector<double> free_;
};

Outcome round(ReactionVolume& volume, Driver& driver, std::uint64_t bytes_per_second) {
  settle(volume, driver);
  std::optional<PollingLoop> loop;
  if (driver.poll() != 0)
    loop.emplace(driver.poll(), random_number() % driver.poll(), volume, driver.socket());
  Writer writer(volume, bytes_per_second);
  Outcome outcome;
  Trace trace;
  std::uint64_t crossed_at = 0;
  std::uint64_t written_before = 0;
  while (true) {
    const std::uint64_t before = volume.freeSpace();
    const bool written = writer.writeBlock();
    const std::uint64_t now = nanosecondsNow();
    if (loop) loop->look();
    const std::uint64_t first = driver.firstRequest();
    const std::uint64_t free_space = volume.freeSpace();
    trace.add(now, free_space);
    // Who was asked may have freed something already.
    const bool is_low = free_space < threshold || before < threshold + Writer::block_bytes;
    if (crossed_at == 0 && (is_low || first != 0)) {
      crossed_at = now;
      written_before = writer.written();
      outcome.is_early = !is_low;
    }
    if (!written && driver.freed() < cached_bytes) {
      outcome.failed = true;
      break;
    }
    if (first != 0 && now > first + goes_on) break;
  }
  loop.reset();
  outcome.fill = trace.since(crossed_at);
  const std::uint64_t first = driver.firstRequest();
  outcome.is_least = first == 0;
  const std::uint64_t until = first != 0 ? first : nanosecondsNow();
  outcome.reaction = until > crossed_at ? static_cast<double>(until - crossed_at) / 1e6 : 0;
  if (first != 0) {
    const std::uint64_t needed = clear_at - threshold + (writer.written() - written_before);
    const std::uint64_t given = driver.freed();
    outcome.overshoot = given > needed ? static_cast<double>(given - needed) / static_cast<double>(MiB) : 0;
  }
  return outcome;
}

struct Kind {
  std::string writer;
  const char* driver;
  std::uint64_t rate;  // bytes per second; 0: as fast as it can
  std::uint64_t poll;
  int rounds;
};

/// The sample below or at which so large a part of them lies.
double quantile(std::vector<double> samples, double part) {
  std::sort(samples.begin(), samples.end());
  const double rank = std::ceil(part * static_cast<double>(samples.size()));
  return samples[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

/// With fewer than a hundred samples the 99th percentile is the worst of them, and is called that.
Figure worstOf(const Kind& kind, const std::vector<double>& reactions, std::optional<Goal> goal) {
  const auto count = static_cast<double>(reactions.size());
  const double value = quantile(reactions, 0.99);
  const bool enough = count >= 100;
  const double sureness = 100 * (1 - std::pow(0.99, count));
  return {fmt::format("crossing to first request, {}, {}", kind.writer, enough ? "99th percentile" : "worst"),
          "ms",
          kind.rounds,
          {value, value, quantile(reactions, 1)},
          std::nullopt,
          goal,
          enough ? fmt::format("of {} fills; the spread ends with the worst", reactions.size())
                 : fmt::format("of {} fills; above the true 99th percentile with {:.0f} % probability",
                               reactions.size(), sureness)};
}

/// What one must know of these fills; nothing in the usual case.
std::string noteOn(const std::vector<Outcome>& outcomes) {
  const auto least = std::count_if(outcomes.begin(), outcomes.end(), [](const Outcome& outcome) {
    return outcome.is_least && !outcome.is_early;
  });
  const auto early = std::count_if(outcomes.begin(), outcomes.end(),
                                   [](const Outcome& outcome) { return outcome.is_early; });
  std::string note;
  if (least > 0) {
    note = fmt::format("in {} fills a write failed before any request; they count as so far", least);
  }
  if (early > 0) {
    note +=
        fmt::format("{}{} fills left out: a request came before the crossing", least > 0 ? "; " : "", early);
  }
  return note;
}

void reportKind(Report& report, const Kind& kind, const std::vector<double>& reactions,
                const std::vector<Outcome>& outcomes, std::size_t failed) {
  const std::string name = fmt::format("{}, {}", kind.writer, kind.driver);
  report.series.push_back(outcomes[0].fill);
  report.series.back().name = "fill, " + name;
  const bool watched = kind.poll == 0;
  const bool has_goal = watched && kind.rate == 500'000'000;
  if (watched && !reactions.empty()) {
    report.add({{fmt::format("crossing to first request, {}", kind.writer), "ms", kind.rounds,
                 quartilesOf(reactions), std::nullopt,
                 has_goal ? std::optional(medianAtMost(10)) : std::nullopt, noteOn(outcomes)},
                worstOf(kind, reactions, has_goal ? std::optional(medianAtMost(40)) : std::nullopt)});
    report.series.push_back(distributionOf("reaction, " + kind.writer, reactions));
  }
  const double part = 100 * static_cast<double>(failed) / static_cast<double>(outcomes.size());
  report.add({{"fills in which a write failed, " + name, "%", kind.rounds, {part, part, part}}});
}

void summarize(Report& report, const Kind& kind, const std::vector<Outcome>& outcomes) {
  std::vector<double> reactions;
  std::vector<double> overshoots;
  std::size_t failed = 0;
  for (const Outcome& outcome : outcomes) {
    if (!outcome.is_early) {
      reactions.push_back(outcome.reaction);
      overshoots.push_back(outcome.overshoot);
    }
    failed += outcome.failed ? 1 : 0;
  }
  fmt::print("{:>14}  {:<16}{:>6}{:>9}", kind.writer, kind.driver, outcomes.size(), reactions.size());
  if (reactions.empty()) {
    fmt::print("{:>10}{:>10}{:>10}{:>8}{:>11}\n", "-", "-", "-", failed, "-");
  } else {
    fmt::print("{:>10.2f}{:>10.2f}{:>10.2f}{:>8}{:>11.0f}\n", quantile(reactions, 0.5),
               quantile(reactions, 0.99), quantile(reactions, 1), failed, quantile(overshoots, 0.5));
  }
  std::fflush(stdout);
  reportKind(report, kind, reactions, outcomes, failed);
}

struct Rounds {
  int usual = 20;
  int fast = 100;  // at 500 MB/s, where the 99th percentile counts
  int polled = 1;
};

Report measure(const Rounds& rounds) {
  const std::string daemon = daemonBesideThisProgram();  // before the mounts change under this program
  ReactionVolume volume(volume_bytes, services, cached_bytes);
  Report report;
  fmt::print("{:>14}  {:<16}{:>6}{:>9}{:>10}{:>10}{:>10}{:>8}{:>11}\n", "writer", "driven by", "rounds",
             "reacted", "median ms", "99th ms", "worst ms", "failed", "over MiB");
  for (const std::uint64_t rate : {50, 200, 500, 0}) {
    const std::string writer = rate != 0 ? fmt::format("{} MB/s", rate) : "unbounded";
    const std::uint64_t bytes = rate * 1'000'000;
    for (const Kind& kind : {Kind{writer, "the watcher", bytes, 0, rate == 500 ? rounds.fast : rounds.usual},
                             Kind{writer, "a look in 10 s", bytes, 10'000 * ms, rounds.polled},
                             Kind{writer, "a look in 60 s", bytes, 60'000 * ms, rounds.polled}}) {
      if (kind.rounds == 0) continue;
      Driver driver(daemon, volume, kind.poll);
      std::vector<Outcome> outcomes;
      outcomes.reserve(static_cast<std::size_t>(kind.rounds));
      for (int i = 0; i < kind.rounds; ++i) outcomes.push_back(round(volume, driver, kind.rate));
      summarize(report, kind, outcomes);
    }
  }
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Rounds rounds;
  return kelvane::bench::runProgram(
      argc, argv,
      {"reaction_bench",
       "Measures how soon a volume that is being filled is given space. Needs to be root, for the volume.",
       [&](CLI::App& app) {
         app.add_option("--rounds", rounds.usual, "rounds at each rate with the daemon's watcher")
             ->check(CLI::PositiveNumber);
         app.add_option("--fast-rounds", rounds.fast,
                        "the same at 500 MB/s, where the 99th percentile counts")
             ->check(CLI::PositiveNumber);
         app.add_option("--polled-rounds", rounds.polled, "rounds with each polling loop")
             ->check(CLI::NonNegativeNumber);
       },
       [&] { return kelvane::bench::measure(rounds); }, false});
}
