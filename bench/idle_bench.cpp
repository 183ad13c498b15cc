// What the daemon uses while nobody wants anything of it: memory by itself, memory with many idle
// connections, and how often it wakes up.
//
// The wake-ups want ten volumes in a folder, which script/lib/private-root.sh mounts:
//
//   script/lib/private-root.sh --volume /volumes/0=64M ... -- build/release/bin/idle_bench --volumes /volumes

#include <fmt/format.h>
#include <sys/stat.h>
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/comparison.h"
#include "bench/support/process_work.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"

namespace kelvane::bench {
namespace {

namespace fs = std::filesystem;

struct Settings {
  std::string daemon = daemonBesideThisProgram();
  std::string volumes;
  int settle = 60;
  int seconds = 60;
  int rounds = 5;
  std::size_t connections = 1000;
};

double megabytesOf(const DaemonProcess& daemon) { return static_cast<double>(daemon.memory()) * 1024 / 1e6; }

/// Megabytes right after the start, and with so many connections that have each made one call.
std::array<double, 2> memoryRound(const Settings& settings) {
  const DaemonProcess daemon(settings.daemon);
  const double alone = megabytesOf(daemon);
  { DaemonClient(daemon.socket()).setState("value", "com.example.bench"); }
  std::vector<std::unique_ptr<DaemonClient>> connections;
  for (std::size_t i = 0; i < settings.connections; ++i) {
    connections.push_back(std::make_unique<DaemonClient>(daemon.socket()));
    connections.back()->state("com.example.bench");
  }
  return {alone, megabytesOf(daemon)};
}

void measureMemory(Report& report, const Settings& settings) {
  const auto found = quartilesOfRounds<2>(settings.rounds, [&] { return memoryRound(settings); });
  report.add({{"resident memory, just started", "MB", settings.rounds, found[0]},
              {fmt::format("resident memory, {} idle connections", settings.connections), "MB",
               settings.rounds, found[1], std::nullopt, medianAtMost(10)}});
}

dev_t deviceOf(const fs::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw std::runtime_error("no " + path.string());
  return status.st_dev;
}

std::size_t volumesIn(const fs::path& folder) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (deviceOf(entry.path()) != deviceOf(folder)) ++count;
  }
  return count;
}

/// What a process has done between two moments with the same threads: the switches of one that came or went
/// meanwhile could not be told.
double wakeUpsOf(const DaemonProcess& daemon, int seconds) {
  const ProcessWork before = ProcessWork::of(daemon.ID());
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const ProcessWork after = ProcessWork::of(daemon.ID());
  if (before.threads != after.threads)
    throw std::runtime_error("a thread came or went while wake-ups were counted");
  return (after - before).voluntary_switches;
}

/// With its own thresholds, so that it watches.
void measureIdleness(Report& report, const Settings& settings) {
  constexpr std::size_t wanted = 10;
  if (volumesIn(settings.volumes) != wanted)
    throw std::runtime_error("there must be ten volumes in " + settings.volumes);
  const DaemonProcess daemon(settings.daemon, {});
  std::this_thread::sleep_for(std::chrono::seconds(settings.settle));
  const double each = wakeUpsOf(daemon, settings.seconds) / settings.seconds;
  const double memory = megabytesOf(daemon);
  report.add({{"resident memory, idle, ten volumes",
               "MB",
               1,
               {memory, memory, memory},
               std::nullopt,
               medianAtMost(6),
               fmt::format("{} s after the start", settings.settle + settings.seconds)},
              {"idle wake-ups per second, ten volumes",
               "1/s",
               1,
               {each, each, each},
               std::nullopt,
               medianAtMost(0.2),
               fmt::format("voluntary context switches of all threads in {} s, {} s after "
                           "the start",
                           settings.seconds, settings.settle)}});
}

Report measure(const Settings& settings) {
  allowManyDescriptors();
  Report report;
  measureMemory(report, settings);
  if (!settings.volumes.empty()) measureIdleness(report, settings);
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Settings settings;
  return kelvane::bench::runProgram(
      argc, argv,
      {"idle_bench", "Measures the idle daemon: its memory and its wake-ups.",
       [&](CLI::App& app) {
         kelvane::bench::addDaemonOption(app, settings.daemon);
         app.add_option("--volumes", settings.volumes,
                        "a folder of ten volumes; without it no wake-ups are counted")
             ->check(CLI::ExistingDirectory);
         app.add_option("--settle", settings.settle, "seconds before wake-ups count")
             ->check(CLI::Range(0, 3600));
         app.add_option("--seconds", settings.seconds, "for how long wake-ups are counted")
             ->check(CLI::Range(1, 36000));
         app.add_option("--rounds", settings.rounds, "daemons whose memory is looked at")
             ->check(CLI::Range(1, 1000));
         app.add_option("--connections", settings.connections, "idle connections")
             ->check(CLI::Range(1, 2000));
       },
       [&] { return kelvane::bench::measure(settings); }});
}
