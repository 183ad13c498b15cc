// What a purge costs, against what the wire alone costs.
//
// For each number of services, in one run and taking turns: the daemon's purge of all of them; the daemon's
// purge of nothing, which is what a request costs without services; a bare bus loop that opens the same
// connections to the same services, makes the same calls and closes them; and plain bytes on plain sockets.

#include <sys/resource.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/quartiles.h"
#include "bench/support/service_host.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t share = 1000;  // bytes asked of each service

struct Figures {
  std::size_t services = 0;
  Quartiles purge, nothing, bare, raw;  // microseconds for all services together
  Quartiles per_call_ratio;             // (purge - nothing) / bare, round by round
  std::uint64_t peak_memory = 0;        // KiB
};

Figures measure(ServiceHost& host, const std::string& daemon_program, const std::string& volume,
                std::size_t services, int rounds) {
  const DaemonProcess daemon(daemon_program);
  DaemonClient client(daemon.socket());
  std::vector<int> bus_endpoints;
  std::vector<int> raw_endpoints;
  for (std::size_t i = 0; i < services; ++i) {
    bus_endpoints.push_back(host.addService(Speech::dbus));
    raw_endpoints.push_back(host.addService(Speech::raw));
    client.checkIn("com.example.bench" + std::to_string(i), bus_endpoints.back());
  }
  std::vector<double> purge, nothing, bare, raw, ratio;
  for (int round = -2; round < rounds; ++round) {  // the first two warm up
    std::uint64_t begin = nanosecondsNow();
    const std::uint64_t purged = client.purge(volume, share * services);
    const double purge_time = static_cast<double>(nanosecondsNow() - begin) / 1e3;
    // Shares grow a little while the first answers come in before the last service was asked.
    if (purged < (share - 1) * services || purged > share * services) {
      std::fprintf(stderr, "purged %llu bytes of %zu services that give %llu each\n",
                   static_cast<unsigned long long>(purged), services,
                   static_cast<unsigned long long>(share - 1));
      std::exit(1);
    }
    const double bare_time =
        static_cast<double>(bareBusFanout(bus_endpoints, Request::purge, volume, share)) / 1e3;
    begin = nanosecondsNow();
    client.purge(volume, 0);
    const double nothing_time = static_cast<double>(nanosecondsNow() - begin) / 1e3;
    const double raw_time = static_cast<double>(rawFanout(raw_endpoints)) / 1e3;
    if (round < 0) continue;
    purge.push_back(purge_time);
    bare.push_back(bare_time);
    nothing.push_back(nothing_time);
    raw.push_back(raw_time);
    ratio.push_back((purge_time - nothing_time) / bare_time);
  }
  for (const int endpoint : raw_endpoints) ::close(endpoint);
  for (const int endpoint : bus_endpoints) ::close(endpoint);
  return {services,         quartilesOf(purge), quartilesOf(nothing), quartilesOf(bare),
          quartilesOf(raw), quartilesOf(ratio), daemon.peakMemory()};
}

void print(const Figures& f) {
  const auto each = static_cast<double>(f.services);
  std::printf("%8zu  %9.1f  %9.1f  %9.1f  %9.1f   %5.2f (%.2f .. %.2f)   %6.2f   %6.1f\n", f.services,
              f.purge.median / each, (f.purge.median - f.nothing.median) / each, f.bare.median / each,
              f.raw.median / each, f.per_call_ratio.median, f.per_call_ratio.low, f.per_call_ratio.high,
              (f.purge.median - f.nothing.median) / f.raw.median, static_cast<double>(f.peak_memory) / 1024);
}

void writeJson(const std::string& path, const std::vector<Figures>& all) {
  std::ofstream out(path);
  out << "[";
  const char* separator = "\n";
  for (const Figures& f : all) {
    out << separator << " {\"services\": " << f.services << ", \"purge_us\": " << f.purge.median
        << ", \"nothing_us\": " << f.nothing.median << ", \"bare_us\": " << f.bare.median
        << ", \"raw_us\": " << f.raw.median << ", \"ratio\": " << f.per_call_ratio.median
        << ", \"ratio_low\": " << f.per_call_ratio.low << ", \"ratio_high\": " << f.per_call_ratio.high
        << ", \"peak_memory_kib\": " << f.peak_memory << "}";
    separator = ",\n";
  }
  out << "\n]\n";
}

int run(int argc, char** argv) {
  CLI::App app("Measures what a purge costs for each service call, against a bare bus loop and raw sockets.");
  std::string daemon = std::filesystem::canonical("/proc/self/exe").parent_path() / "kelvaned";
  std::string volume = "/";
  std::string json;
  int rounds = 41;
  std::vector<std::size_t> counts{1, 10, 100, 500};
  app.add_option("--daemon", daemon, "the daemon's program")->check(CLI::ExistingFile);
  app.add_option("--volume", volume, "a local volume; nothing is written to it");
  app.add_option("--rounds", rounds, "rounds for each number of services")->check(CLI::Range(3, 1000));
  app.add_option("--services", counts, "the numbers of services");
  app.add_option("--json", json, "a file for the figures");
  CLI11_PARSE(app, argc, argv);

  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &descriptors);

  ServiceHost host;
  std::printf("microseconds for each service call, medians of %d rounds; ratio with its quartiles\n\n",
              rounds);
  std::printf(
      "services      purge    without       bare        raw   ratio to bare            to raw   peak\n");
  std::printf(
      "                       request   bus loop    sockets                                    MiB\n");
  std::vector<Figures> all;
  for (const std::size_t count : counts) {
    all.push_back(measure(host, daemon, volume, count, rounds));
    print(all.back());
  }
  if (!json.empty()) writeJson(json, all);
  return 0;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  try {
    return kelvane::bench::run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "purge_bench: %s\n", failure.what());
    return 1;
  }
}
