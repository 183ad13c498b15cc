#include "bench/support/comparison.h"

#include <sys/resource.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "bench/support/placement.h"
#include "bench/support/program.h"

namespace kelvane::bench {
namespace {

int run(int argc, char** argv, Comparison& comparison) {
  CLI::App app(comparison.about);
  Setting setting{daemonBesideThisProgram(), "/", comparison.rounds};
  std::string json;
  bool unplaced = false;
  addDaemonOption(app, setting.daemon);
  app.add_option("--volume", setting.volume, "a local volume; nothing is written to it");
  app.add_option("--rounds", setting.rounds, "rounds for each number of services")
      ->check(CLI::Range(3, 1000));
  app.add_option("--services", comparison.services, "the numbers of services");
  app.add_flag("--unplaced", unplaced, "leave it to the scheduler who runs on which processor");
  app.add_option("--json", json, "a file for the figures");
  CLI11_PARSE(app, argc, argv);

  allowManyDescriptors();
  ServiceHost host;
  setting.apart = !unplaced && place(host.ID(), Side::far) && place(0, Side::near);
  std::printf(
      "microseconds, medians of %d rounds; ratios with their quartiles; %s\n\n%s\n", setting.rounds,
      setting.apart ? "the services have a processor to themselves" : "the scheduler places the services",
      comparison.heading);
  Report report;
  for (const std::size_t services : comparison.services) {
    const Row row = comparison.measure(host, setting, services);
    std::printf("%s\n", row.text.c_str());
    std::fflush(stdout);
    report.add(row.figures);
  }
  if (comparison.across != nullptr) {
    const Report last{comparison.across(host, setting)};
    last.print();
    report.add(last.figures);
  }
  report.write(json);
  return 0;
}

}  // namespace

int runComparison(int argc, char** argv, Comparison comparison) {
  try {
    return run(argc, argv, comparison);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", comparison.name, failure.what());
    return 1;
  }
}

void allowManyDescriptors() {
  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &descriptors);
}

std::string daemonBesideThisProgram() {
  return std::filesystem::canonical("/proc/self/exe").parent_path() / "kelvaned";
}

const char* nameOf(ServiceKind kind) {
  return kind == ServiceKind::bus_library ? "services of sd-bus" : "services of libkelvane";
}

PopulatedDaemon::PopulatedDaemon(const Setting& setting, ServiceHost& host, std::size_t services,
                                 ServiceKind kind)
    : host_(host.ID()), process_(setting.daemon), client_(process_.socket()) {
  for (std::size_t i = 0; i < services; ++i) {
    endpoints_.push_back(host.addService(Speech::dbus));
    if (kind == ServiceKind::bus_library) client_.checkIn(serviceID(i), endpoints_.back());
  }
  if (kind == ServiceKind::own_library) services_.emplace(process_.socket(), services, setting.apart);
}

PopulatedDaemon::~PopulatedDaemon() {
  for (const int endpoint : endpoints_) ::close(endpoint);
}

}  // namespace kelvane::bench
