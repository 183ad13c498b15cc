// What a purge costs, against what the wire alone costs.
//
// For each number of services, in one run and taking turns: the daemon's purge of all of them; the daemon's
// purge of nothing, which is what a request costs without services; a bare bus loop that opens as many
// connections to services of the bus library, makes the same calls and closes them; and plain bytes on plain
// sockets. The daemon does it twice, with services of the bus library, the same that the bare loop calls, and
// with services of this project's library.
//
// Beside the time that passes, the processor time is taken of the daemon and of the bare loop, and of the
// services meanwhile: it depends less on what else the machine does.

#include <fmt/format.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"
#include "bench/support/process_work.h"
#include "bench/support/rounds.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t share = 1000;  // bytes asked of each service

/// What is measured in each round: microseconds, or a count, for all services together.
enum Thing : std::size_t {
  purge,
  net,  // purge - nothing
  bare,
  raw,
  ratio,  // of net to bare
  raw_ratio,
  purge_processor,
  bare_processor,
  processor_ratio,
  services_in_purge,  // their processor time
  services_in_bare,
  purge_switches,
  bare_switches,
  things
};

void purgeAll(DaemonClient& client, const std::string& volume, std::size_t services) {
  const std::uint64_t purged = client.purge(volume, share * services);
  // Shares grow a little while the first answers come in before the last service was asked.
  if (purged >= (share - 1) * services && purged <= share * services) return;
  std::fprintf(stderr, "purged %llu bytes of %zu services that give %llu each\n",
               static_cast<unsigned long long>(purged), services, static_cast<unsigned long long>(share - 1));
  std::exit(1);
}

struct Cost {
  double time;
  ProcessWork work;
  double services_processor;
};

template <class What>
Cost costOf(What what, pid_t process, pid_t services) {
  const ProcessWork services_before = ProcessWork::of(services);
  const ProcessWork before = ProcessWork::of(process);
  const double time = microsecondsOf(what);
  const ProcessWork work = ProcessWork::of(process) - before;
  return {time, work, (ProcessWork::of(services) - services_before).processor_microseconds};
}

std::array<double, things> round(PopulatedDaemon& daemon, const std::vector<int>& raw_endpoints,
                                 const std::string& volume, pid_t host) {
  const std::size_t services = raw_endpoints.size();
  const pid_t process = daemon.process().ID();
  const Cost all = costOf([&] { purgeAll(daemon.client(), volume, services); }, process, daemon.servicesID());
  const Cost loop =
      costOf([&] { bareBusFanout(daemon.endpoints(), Request::purge, volume, share); }, ::getpid(), host);
  const Cost none = costOf([&] { daemon.client().purge(volume, 0); }, process, daemon.servicesID());
  const double plain = microsecondsOf([&] { rawFanout(raw_endpoints); });
  const ProcessWork work = all.work - none.work;
  return {all.time,
          all.time - none.time,
          loop.time,
          plain,
          (all.time - none.time) / loop.time,
          (all.time - none.time) / plain,
          work.processor_microseconds,
          loop.work.processor_microseconds,
          work.processor_microseconds / loop.work.processor_microseconds,
          all.services_processor,
          loop.services_processor,
          work.context_switches,
          loop.work.context_switches};
}

std::string lineOf(std::size_t services, ServiceKind kind, const std::array<Quartiles, things>& q,
                   std::uint64_t peak_memory) {
  const auto each = [&](double all) { return all / static_cast<double>(services); };
  return fmt::format(
      "{:8}  {:7.1f} {:8.1f} {:8.1f} {:8.1f}   {:5.2f} ({:.2f} .. {:.2f})   {:6.1f} {:6.1f}  {:5.2f}   "
      "{:6.1f} {:6.1f}  {:6.2f} {:6.2f}  {:6.1f}  {}",
      services, each(q[purge].median), each(q[net].median), each(q[bare].median), each(q[raw].median),
      q[ratio].median, q[ratio].low, q[ratio].high, each(q[purge_processor].median),
      each(q[bare_processor].median), q[processor_ratio].median, each(q[services_in_purge].median),
      each(q[services_in_bare].median), each(q[purge_switches].median), each(q[bare_switches].median),
      static_cast<double>(peak_memory) / 1024, nameOf(kind));
}

std::vector<Figure> figuresOf(std::size_t services, ServiceKind kind, int rounds,
                              const std::array<Quartiles, things>& q, std::uint64_t peak_memory) {
  const auto each = static_cast<double>(services);
  const auto named = [&](const char* what) { return fmt::format("{}, {} {}", what, services, nameOf(kind)); };
  std::optional<Goal> goal;
  std::optional<Goal> processor_goal;
  if (services == 100 || services == 500) {
    goal = ratioAtMost(kind == ServiceKind::own_library ? 1.0 : 1.1);
    processor_goal = ratioAtMost(1.0);
  }
  const double peak = static_cast<double>(peak_memory) / 1024;
  return {
      {named("purge, per service call"), "us", rounds, q[net] / each,
       Peer{"bare sd-bus open, call, close", q[bare] / each, q[ratio]}, goal,
       "without what a purge of nothing costs"},
      {named("purge, processor time per service call"), "us", rounds, q[purge_processor] / each,
       Peer{"bare sd-bus open, call, close", q[bare_processor] / each, q[processor_ratio]}, processor_goal},
      {named("purge, per service call, beside raw sockets"), "us", rounds, q[net] / each,
       Peer{"raw AF_UNIX fan-out", q[raw] / each, q[raw_ratio]}},
      {named("purge, peak memory"), "MiB", 1, {peak, peak, peak}}};
}

Row measureKind(ServiceHost& host, const Setting& setting, std::size_t services, ServiceKind kind) {
  PopulatedDaemon daemon(setting, host, services, kind);
  std::vector<int> raw_endpoints;
  for (std::size_t i = 0; i < services; ++i) raw_endpoints.push_back(host.addService(Speech::raw));
  const auto found = quartilesOfRounds<things>(
      setting.rounds, [&] { return round(daemon, raw_endpoints, setting.volume, host.ID()); });
  for (const int endpoint : raw_endpoints) ::close(endpoint);
  const std::uint64_t peak_memory = daemon.process().peakMemory();
  return {lineOf(services, kind, found, peak_memory),
          figuresOf(services, kind, setting.rounds, found, peak_memory)};
}

Row measure(ServiceHost& host, const Setting& setting, std::size_t services) {
  Row all = measureKind(host, setting, services, ServiceKind::bus_library);
  Row others = measureKind(host, setting, services, ServiceKind::own_library);
  all.text += "\n" + others.text;
  std::move(others.figures.begin(), others.figures.end(), std::back_inserter(all.figures));
  return all;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  return kelvane::bench::runComparison(
      argc, argv,
      {"purge_bench",
       "Measures what a purge costs for each service call, against a bare bus loop and raw sockets.",
       "for each service call                                             processor time          "
       "services'       switches       peak\n"
       "services   purge  without     bare      raw   ratio to bare          daemon   bare  ratio   "
       "purge   bare   daemon   bare     MiB\n"
       "                  request bus loop  sockets",
       41,
       {1, 10, 100, 500},
       kelvane::bench::measure});
}
