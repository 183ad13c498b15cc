// What questions and the state cost, against what the wire alone costs.
//
// For each number of services, in one run and taking turns: a question that asks every service (the record of
// recent figures is removed before it, outside of what is timed); the same question again, answered from the
// record; the reading of one state value; a bare bus loop that opens the same connections to the same
// services, asks the same and closes them; a bare round trip on an open connection; and what marshalling an
// answer of that size takes. What is short is repeated, and counts with its mean.

#include <sys/resource.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/quartiles.h"
#include "bench/support/service_host.h"
#include "common/keys.h"

namespace kelvane::bench {
namespace {

constexpr int repetitions = 10;  // of what is short, in each round

template <class What>
double microsecondsOf(What what, int times = 1) {
  const std::uint64_t begin = nanosecondsNow();
  for (int i = 0; i < times; ++i) what();
  return static_cast<double>(nanosecondsNow() - begin) / 1e3 / times;
}

struct Figures {
  std::size_t services = 0;
  Quartiles uncached, cached, get_state;                // microseconds
  Quartiles bare, round_trip, marshalling;              // microseconds
  Quartiles uncached_ratio, cached_ratio, state_ratio;  // round by round
};

void expect(std::int64_t total, std::size_t services) {
  if (total == static_cast<std::int64_t>(services * purgeable_bytes)) return;
  std::fprintf(stderr, "%zu services could free %lld bytes\n", services, static_cast<long long>(total));
  std::exit(1);
}

Figures measure(ServiceHost& host, const std::string& daemon_program, const std::string& volume,
                std::size_t services, int rounds) {
  const DaemonProcess daemon(daemon_program);
  DaemonClient client(daemon.socket());
  std::vector<int> endpoints;
  for (std::size_t i = 0; i < services; ++i) {
    endpoints.push_back(host.addService(Speech::dbus));
    client.checkIn("com.example.bench" + std::to_string(i), endpoints.back());
  }
  client.setState("value", "com.example.bench");
  std::vector<double> uncached, cached, get_state, bare, round_trip, marshalling, uncached_ratio,
      cached_ratio, state_ratio;
  for (int round = -2; round < rounds; ++round) {  // the first two warm up
    client.removeState(KELVANE_RECENT_SERVICE_STATS);
    const double asked = microsecondsOf([&] { expect(client.purgeableSpace(volume), services); });
    const double bare_time =
        static_cast<double>(bareBusFanout(endpoints, Request::purgeable, volume, 0)) / 1e3;
    const double counted =
        microsecondsOf([&] { expect(client.purgeableSpace(volume), services); }, repetitions);
    const double trip = static_cast<double>(bareBusRoundTrip(endpoints[0], volume)) / 1e3;
    const double read = microsecondsOf([&] { client.state("com.example.bench"); }, repetitions);
    const double marshalled = static_cast<double>(bareBusMarshalling(services + 2)) / 1e3;
    if (round < 0) continue;
    uncached.push_back(asked);
    cached.push_back(counted);
    get_state.push_back(read);
    bare.push_back(bare_time);
    round_trip.push_back(trip);
    marshalling.push_back(marshalled);
    uncached_ratio.push_back(asked / bare_time);
    cached_ratio.push_back((counted - marshalled) / trip);
    state_ratio.push_back(read / trip);
  }
  for (const int endpoint : endpoints) ::close(endpoint);
  return {services,
          quartilesOf(uncached),
          quartilesOf(cached),
          quartilesOf(get_state),
          quartilesOf(bare),
          quartilesOf(round_trip),
          quartilesOf(marshalling),
          quartilesOf(uncached_ratio),
          quartilesOf(cached_ratio),
          quartilesOf(state_ratio)};
}

void print(const Figures& f) {
  std::printf(
      "%8zu  %9.0f %9.0f  %5.2f (%.2f .. %.2f)  %8.1f %8.1f %8.1f  %5.2f (%.2f .. %.2f)  %7.1f  %5.2f\n",
      f.services, f.uncached.median, f.bare.median, f.uncached_ratio.median, f.uncached_ratio.low,
      f.uncached_ratio.high, f.cached.median, f.round_trip.median, f.marshalling.median,
      f.cached_ratio.median, f.cached_ratio.low, f.cached_ratio.high, f.get_state.median,
      f.state_ratio.median);
}

void writeJson(const std::string& path, const std::vector<Figures>& all) {
  std::ofstream out(path);
  out << "[";
  const char* separator = "\n";
  for (const Figures& f : all) {
    out << separator << " {\"services\": " << f.services << ", \"uncached_us\": " << f.uncached.median
        << ", \"bare_us\": " << f.bare.median << ", \"uncached_ratio\": " << f.uncached_ratio.median
        << ", \"cached_us\": " << f.cached.median << ", \"round_trip_us\": " << f.round_trip.median
        << ", \"marshalling_us\": " << f.marshalling.median << ", \"cached_ratio\": " << f.cached_ratio.median
        << ", \"get_state_us\": " << f.get_state.median << ", \"state_ratio\": " << f.state_ratio.median
        << "}";
    separator = ",\n";
  }
  out << "\n]\n";
}

int run(int argc, char** argv) {
  CLI::App app("Measures questions about purgeable space and the reading of state against a bare bus loop.");
  std::string daemon = std::filesystem::canonical("/proc/self/exe").parent_path() / "kelvaned";
  std::string volume = "/";
  std::string json;
  int rounds = 31;
  std::vector<std::size_t> counts{1, 10, 100, 1000};
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
  std::printf("microseconds, medians of %d rounds; ratios with their quartiles\n\n", rounds);
  std::printf(
      "services   uncached  bare bus  ratio                   cached    round  marshal-  "
      "(cached - marshalling)   state   ratio\n");
  std::printf(
      "              query   fan-out                            query     trip      ling  "
      "to one round trip         read\n");
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
    std::fprintf(stderr, "state_bench: %s\n", failure.what());
    return 1;
  }
}
