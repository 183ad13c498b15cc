// What questions cost, against what the wire alone costs.
//
// For each number of services, in one run and taking turns: a question that asks every service (the record of
// recent figures is removed before it, outside of what is timed), of the bus library and, of another daemon,
// of this project's library; the same question again, answered from the record; a bare bus loop that opens as
// many connections to services of the bus library, asks the same and closes them; the same with plain bytes
// on plain sockets; and a stand-in for the daemon that knows the answer and nothing else. What is short is
// repeated, and counts with its mean. Last comes the cost of storing a value among many entries.

#include <fmt/format.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"
#include "bench/support/rounds.h"
#include "bench/support/temporary_folder.h"
#include "common/keys.h"

namespace kelvane::bench {
namespace {

constexpr int repetitions = 10;  // of what is short, in each round

/// What is measured in each round: microseconds, and ratios.
enum Thing : std::size_t {
  uncached,
  uncached_own,  // of services of this project's library
  cached,
  bare,
  raw,
  echo,
  uncached_ratio,
  own_ratio,
  raw_ratio,
  cached_ratio,
  things
};

/// What is asked, and what it is compared with.
struct Subject {
  Subject(ServiceHost& host, const Setting& setting, std::size_t services,
          ServiceKind kind = ServiceKind::bus_library)
      : daemon(setting, host, services, kind), volume(setting.volume) {
    for (std::size_t i = 0; i < services; ++i) raw_endpoints.push_back(host.addService(Speech::raw));
  }
  ~Subject() {
    for (const int endpoint : raw_endpoints) ::close(endpoint);
  }
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;

  void ask(DaemonClient& client, const std::string& about) const {
    const std::int64_t total = client.purgeableSpace(about);
    if (total == static_cast<std::int64_t>(services() * purgeable_bytes)) return;
    std::fprintf(stderr, "%zu services could free %lld bytes\n", services(), static_cast<long long>(total));
    std::exit(1);
  }
  /// The microseconds that a question takes which asks every service.
  double askEach() {
    daemon.client().removeState(KELVANE_RECENT_SERVICE_STATS);
    return microsecondsOf([&] { ask(daemon.client(), volume); });
  }
  [[nodiscard]] std::size_t services() const { return raw_endpoints.size(); }

  PopulatedDaemon daemon;
  const std::string volume;
  std::vector<int> raw_endpoints;
};

std::array<double, things> round(Subject& subject, Subject& of_own_library, DaemonClient& stand_in) {
  const double asked = subject.askEach();
  const double asked_own = of_own_library.askEach();
  const double fanned = microsecondsOf(
      [&] { bareBusFanout(subject.daemon.endpoints(), Request::purgeable, subject.volume, 0); });
  const double plain = microsecondsOf([&] { rawFanout(subject.raw_endpoints); });
  const double counted =
      microsecondsOf([&] { subject.ask(subject.daemon.client(), subject.volume); }, repetitions);
  const std::string number = std::to_string(subject.services());
  const double echoed = microsecondsOf([&] { subject.ask(stand_in, number); }, repetitions);
  return {asked,          asked_own,          counted,       fanned,          plain, echoed,
          asked / fanned, asked_own / fanned, asked / plain, counted / echoed};
}

std::string lineOf(std::size_t services, const std::array<Quartiles, things>& q) {
  const auto text = [](const Quartiles& ratio) {
    return fmt::format("{:.2f} ({:.2f} .. {:.2f})", ratio.median, ratio.low, ratio.high);
  };
  return fmt::format("{:8}  {:9.0f} {:9.0f} {:9.0f} {:9.0f}  {:<20} {:<20} {:8.1f} {:10.1f}  {}", services,
                     q[uncached].median, q[uncached_own].median, q[bare].median, q[raw].median,
                     text(q[uncached_ratio]), text(q[own_ratio]), q[cached].median, q[echo].median,
                     text(q[cached_ratio]));
}

std::vector<Figure> figuresOf(std::size_t services, int rounds, const std::array<Quartiles, things>& q) {
  const auto each = static_cast<double>(services);
  const auto named = [&](const char* what) { return fmt::format("{}, {} services", what, services); };
  std::optional<Goal> uncached_goal;
  std::optional<Goal> cached_goal;
  if (services == 100) {
    uncached_goal = ratioAtMost(1.0);
    cached_goal = ratioAtMost(1.2);
  }
  return {{named("uncached query, per service"), "us", rounds, q[uncached] / each,
           Peer{"bare sd-bus fan-out", q[bare] / each, q[uncached_ratio]}, uncached_goal},
          {named("uncached query, per service") + " of libkelvane", "us", rounds, q[uncached_own] / each,
           Peer{"bare sd-bus fan-out", q[bare] / each, q[own_ratio]}, uncached_goal},
          {named("uncached query, per service, beside raw sockets"), "us", rounds, q[uncached] / each,
           Peer{"raw AF_UNIX fan-out", q[raw] / each, q[raw_ratio]}},
          {named("cached query"), "us", rounds, q[cached],
           Peer{"bare sd-bus round trip, same answer", q[echo], q[cached_ratio]}, cached_goal}};
}

Row measure(ServiceHost& host, const Setting& setting, std::size_t services) {
  Subject subject(host, setting, services);
  Subject of_own_library(host, setting, services, ServiceKind::own_library);
  const TemporaryFolder folder;
  ServiceHost bare_host;
  bare_host.standInAt(folder.path() + "/socket");
  DaemonClient stand_in(folder.path() + "/socket");
  const auto found =
      quartilesOfRounds<things>(setting.rounds, [&] { return round(subject, of_own_library, stand_in); });
  return {lineOf(services, found), figuresOf(services, setting.rounds, found)};
}

/// The cost of storing a value among many entries, compared with few.
Figure writing(ServiceHost& host, const Setting& setting) {
  constexpr int few = 10;
  constexpr int many = 10'000;
  constexpr int writes = 50;  // in each round
  PopulatedDaemon small(setting, host, 0);
  PopulatedDaemon large(setting, host, 0);
  const auto fill = [](DaemonClient& client, int entries) {
    for (int i = 0; i < entries; ++i) client.setState("a value", fmt::format("com.example.entry{}", i));
  };
  fill(small.client(), few);
  fill(large.client(), many);
  int number = 0;
  const auto write = [&](DaemonClient& client) {
    ++number;
    client.setState(std::to_string(number), fmt::format("com.example.entry{}", number % few));
  };
  const auto found = quartilesOfRounds<3>(setting.rounds, [&]() -> std::array<double, 3> {
    const double at_few = microsecondsOf([&] { write(small.client()); }, writes);
    const double at_many = microsecondsOf([&] { write(large.client()); }, writes);
    return {at_many, at_few, at_many / at_few};
  });
  return {"clientSetState among 10,000 entries",
          "us",
          setting.rounds,
          found[0],
          Peer{"the same among 10", found[1], found[2]},
          ratioAtMost(1.2)};
}

/// What a service costs among many, beside what it costs among few.
std::vector<Figure> growth(ServiceHost& host, const Setting& setting) {
  constexpr std::size_t few = 100;
  constexpr std::size_t many = 1000;
  Subject small(host, setting, few);
  Subject large(host, setting, many);
  const auto found = quartilesOfRounds<3>(setting.rounds, [&]() -> std::array<double, 3> {
    const double at_few = small.askEach() / few;
    const double at_many = large.askEach() / many;
    return {at_many, at_few, at_many / at_few};
  });
  return {{"uncached query, growth of the cost per service, 1,000 services", "us", setting.rounds, found[0],
           Peer{"the same among 100", found[1], found[2]}, ratioAtMost(1.3)},
          writing(host, setting)};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  return kelvane::bench::runComparison(
      argc, argv,
      {"state_bench",
       "Measures questions about purgeable space against a bare bus loop.",
       "services   uncached  services  bare bus       raw  ratio to bare bus    of libkelvane's        "
       "cached  same from a  ratio\n"
       "              query  of libk.   fan-out   fan-out                       services               "
       "query   bare echo",
       31,
       {1, 10, 100, 1000},
       kelvane::bench::measure,
       kelvane::bench::growth});
}
