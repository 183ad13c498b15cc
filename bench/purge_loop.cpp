// Purges again and again, for those who count from outside what that costs: a tracer of system calls, a
// profiler. Either the daemon's purge of so many services, or the bare bus loop's calls to as many.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/comparison.h"

namespace kelvane::bench {
namespace {

constexpr std::uint64_t share = 1000;  // bytes asked of each service

void purgeBare(ServiceHost& host, const std::string& volume, std::size_t services, int rounds) {
  std::vector<int> endpoints;
  for (std::size_t i = 0; i < services; ++i) endpoints.push_back(host.addService(Speech::dbus));
  for (int i = 0; i < rounds; ++i) bareBusFanout(endpoints, Request::purge, volume, share);
}

void purgeByDaemon(ServiceHost& host, const std::string& program, const std::string& volume,
                   std::size_t services, int rounds) {
  PopulatedDaemon daemon(program, host, services);
  for (int i = 0; i < rounds; ++i) daemon.client().purge(volume, share * services);
}

int run(int argc, char** argv) {
  CLI::App app("Purges again and again, for those who count from outside what that costs.");
  std::string daemon = daemonBesideThisProgram();
  std::string volume = "/";
  int rounds = 10;
  std::size_t services = 100;
  bool bare = false;
  app.add_option("--daemon", daemon, "the daemon's program")->check(CLI::ExistingFile);
  app.add_option("--volume", volume, "a local volume; nothing is written to it");
  app.add_option("--rounds", rounds, "how many purges")->check(CLI::Range(0, 100000));
  app.add_option("--services", services, "how many services")->check(CLI::Range(1, 10000));
  app.add_flag("--bare", bare, "the bare bus loop instead of the daemon");
  CLI11_PARSE(app, argc, argv);
  allowManyDescriptors();
  ServiceHost host;
  if (bare) {
    purgeBare(host, volume, services, rounds);
  } else {
    purgeByDaemon(host, daemon, volume, services, rounds);
  }
  return 0;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  try {
    return kelvane::bench::run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "purge_loop: %s\n", failure.what());
    return 1;
  }
}
