// One request again and again, for those who count from outside what that costs: a tracer of system calls, a
// profiler. The daemon's answers, or those of the bare bus loop and the stand-in that the benchmarks compare
// it with.

#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"
#include "bench/support/program.h"
#include "bench/support/temporary_folder.h"
#include "common/keys.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t share = 1000;  // bytes asked of each service
constexpr const char* key = "com.example.bench";

struct Choice {
  Setting setting{daemonBesideThisProgram()};
  std::string request = "purge";
  std::size_t services = 100;
  int rounds = 10;
  bool own_library = false;
  bool bare = false;
};

using Round = std::function<void(int)>;

void checkInAnother(ServiceHost& host, DaemonClient& client, int number) {
  const int endpoint = host.addService(Speech::dbus);
  client.checkIn("com.example.late" + std::to_string(number), endpoint);
  ::close(endpoint);
}

/// What is to be done in each round, with the number of the round.
Round roundOfDaemon(const Choice& choice, ServiceHost& host, PopulatedDaemon& daemon) {
  DaemonClient& client = daemon.client();
  const std::string& volume = choice.setting.volume;
  const std::uint64_t amount = share * choice.services;
  const std::map<std::string, Round> rounds = {
      {"purge", [&client, volume, amount](int) { client.purge(volume, amount); }},
      {"question",
       [&client, volume](int) {
         client.removeState(KELVANE_RECENT_SERVICE_STATS);
         client.purgeableSpace(volume);
       }},
      {"cached", [&client, volume](int) { client.purgeableSpace(volume); }},
      {"state", [&client](int) { client.state(key); }},
      {"checkin",
       [&host, &daemon](int number) {
         DaemonClient own(daemon.process().socket());
         checkInAnother(host, own, number);
       }},
      {"connect", [&daemon](int) { DaemonClient(daemon.process().socket()).state(key); }}};
  return rounds.at(choice.request);
}

Round roundOfBareLoop(const Choice& choice, const std::vector<int>& endpoints, DaemonClient& stand_in,
                      const std::string& socket) {
  const std::string& volume = choice.setting.volume;
  const std::map<std::string, Round> rounds = {
      {"purge", [&endpoints, volume](int) { bareBusFanout(endpoints, Request::purge, volume, share); }},
      {"question", [&endpoints, volume](int) { bareBusFanout(endpoints, Request::purgeable, volume, 0); }},
      {"cached",
       [&stand_in, number = std::to_string(choice.services)](int) { stand_in.purgeableSpace(number); }},
      {"state", [&stand_in](int) { stand_in.state(key); }},
      {"checkin",
       [socket](int number) {
         DaemonClient own(socket);
         own.checkIn("com.example.late" + std::to_string(number), STDERR_FILENO);
         own.state(key);
       }},
      {"connect", [socket](int) { DaemonClient(socket).state(key); }}};
  return rounds.at(choice.request);
}

void runBare(const Choice& choice, ServiceHost& host) {
  const TemporaryFolder folder;
  const std::string socket = folder.path() + "/socket";
  host.standInAt(socket);
  DaemonClient stand_in(socket);
  std::vector<int> endpoints;
  for (std::size_t i = 0; i < choice.services; ++i) endpoints.push_back(host.addService(Speech::dbus));
  const Round round = roundOfBareLoop(choice, endpoints, stand_in, socket);
  for (int i = 0; i < choice.rounds; ++i) round(i);
}

Report run(const Choice& choice) {
  allowManyDescriptors();
  ServiceHost host;
  if (choice.bare) {
    runBare(choice, host);
    return {};
  }
  const ServiceKind kind = choice.own_library ? ServiceKind::own_library : ServiceKind::bus_library;
  PopulatedDaemon daemon(choice.setting, host, choice.services, kind);
  daemon.client().setState("value", key);
  const Round round = roundOfDaemon(choice, host, daemon);
  for (int i = 0; i < choice.rounds; ++i) round(i);
  return {};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Choice choice;
  return kelvane::bench::runProgram(
      argc, argv,
      {"request_loop", "Makes one request again and again, for those who count from outside what it costs.",
       [&](CLI::App& app) {
         kelvane::bench::addDaemonOption(app, choice.setting.daemon);
         app.add_option("--request", choice.request, "which; checkin and connect have a new connection each")
             ->check(CLI::IsMember({"purge", "question", "cached", "state", "checkin", "connect"}));
         app.add_option("--volume", choice.setting.volume, "a local volume; nothing is written to it");
         app.add_option("--rounds", choice.rounds, "how many requests")->check(CLI::Range(0, 1000000));
         app.add_option("--services", choice.services, "how many services")->check(CLI::Range(0, 10000));
         app.add_flag("--own-library", choice.own_library, "services of this project's library, not sd-bus");
         app.add_flag("--bare", choice.bare, "the bare bus loop or the stand-in instead of the daemon");
       },
       [&] { return kelvane::bench::run(choice); }});
}
