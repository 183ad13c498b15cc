// What questions and the state cost, against what the wire alone costs.
//
// For each number of services, in one run and taking turns: a question that asks every service (the record of
// recent figures is removed before it, outside of what is timed); the same question again, answered from the
// record; the reading of one state value; a bare bus loop that opens the same connections to the same
// services, asks the same and closes them; a bare round trip on an open connection; and what marshalling an
// answer of that size takes. What is short is repeated, and counts with its mean.

#include <fmt/format.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"
#include "bench/support/rounds.h"
#include "common/keys.h"

namespace kelvane::bench {
namespace {

constexpr int repetitions = 10;  // of what is short, in each round

/// What is measured in each round: microseconds, and ratios.
enum Thing : std::size_t {
  uncached,
  cached,
  get_state,
  bare,
  round_trip,
  marshalling,
  uncached_ratio,
  cached_ratio,
  state_ratio,
  things
};

void expect(std::int64_t total, std::size_t services) {
  if (total == static_cast<std::int64_t>(services * purgeable_bytes)) return;
  std::fprintf(stderr, "%zu services could free %lld bytes\n", services, static_cast<long long>(total));
  std::exit(1);
}

std::array<double, things> round(PopulatedDaemon& daemon, const std::string& volume) {
  DaemonClient& client = daemon.client();
  const std::vector<int>& endpoints = daemon.endpoints();
  const std::size_t services = endpoints.size();
  const auto ask = [&] { expect(client.purgeableSpace(volume), services); };
  client.removeState(KELVANE_RECENT_SERVICE_STATS);
  const double asked = microsecondsOf(ask);
  const double fanned = microsecondsOf([&] { bareBusFanout(endpoints, Request::purgeable, volume, 0); });
  const double counted = microsecondsOf(ask, repetitions);
  const double trip = static_cast<double>(bareBusRoundTrip(endpoints[0], volume)) / 1e3;
  const double read = microsecondsOf([&] { client.state("com.example.bench"); }, repetitions);
  const double marshalled = static_cast<double>(bareBusMarshalling(services + 2)) / 1e3;
  return {asked,      counted, read, fanned, trip, marshalled, asked / fanned, (counted - marshalled) / trip,
          read / trip};
}

std::string lineOf(std::size_t services, const std::array<Quartiles, things>& q) {
  return fmt::format(
      "{:8}  {:9.0f} {:9.0f}  {:5.2f} ({:.2f} .. {:.2f})  {:8.1f} {:8.1f} {:8.1f}  {:5.2f} ({:.2f} .. "
      "{:.2f})  {:7.1f}  {:5.2f}",
      services, q[uncached].median, q[bare].median, q[uncached_ratio].median, q[uncached_ratio].low,
      q[uncached_ratio].high, q[cached].median, q[round_trip].median, q[marshalling].median,
      q[cached_ratio].median, q[cached_ratio].low, q[cached_ratio].high, q[get_state].median,
      q[state_ratio].median);
}

Row measure(ServiceHost& host, const Setting& setting, std::size_t services) {
  PopulatedDaemon daemon(setting.daemon, host, services);
  daemon.client().setState("value", "com.example.bench");
  const auto found = quartilesOfRounds<things>(setting.rounds, [&] { return round(daemon, setting.volume); });
  return {lineOf(services, found),
          {{"services", static_cast<double>(services)},
           {"uncached_us", found[uncached].median},
           {"bare_us", found[bare].median},
           {"uncached_ratio", found[uncached_ratio].median},
           {"cached_us", found[cached].median},
           {"round_trip_us", found[round_trip].median},
           {"marshalling_us", found[marshalling].median},
           {"cached_ratio", found[cached_ratio].median},
           {"get_state_us", found[get_state].median},
           {"state_ratio", found[state_ratio].median}}};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  return kelvane::bench::runComparison(
      argc, argv,
      {"state_bench",
       "Measures questions about purgeable space and the reading of state against a bare bus loop.",
       "services   uncached  bare bus  ratio                   cached    round  marshal-  "
       "(cached - marshalling)   state   ratio\n"
       "              query   fan-out                            query     trip      ling  "
       "to one round trip         read",
       31,
       {1, 10, 100, 1000},
       kelvane::bench::measure});
}
