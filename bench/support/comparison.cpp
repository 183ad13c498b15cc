#include "bench/support/comparison.h"

#include <sys/resource.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

namespace kelvane::bench {
namespace {

void writeJson(const std::string& path, const std::vector<Row>& rows) {
  std::ofstream out(path);
  out << "[";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    out << (i == 0 ? "\n {" : ",\n {");
    const char* separator = "";
    for (const auto& [name, figure] : rows[i].figures) {
      out << separator << '"' << name << "\": " << figure;
      separator = ", ";
    }
    out << "}";
  }
  out << "\n]\n";
}

int run(int argc, char** argv, Comparison& comparison) {
  CLI::App app(comparison.about);
  Setting setting{daemonBesideThisProgram(), "/", comparison.rounds};
  std::string json;
  app.add_option("--daemon", setting.daemon, "the daemon's program")->check(CLI::ExistingFile);
  app.add_option("--volume", setting.volume, "a local volume; nothing is written to it");
  app.add_option("--rounds", setting.rounds, "rounds for each number of services")
      ->check(CLI::Range(3, 1000));
  app.add_option("--services", comparison.services, "the numbers of services");
  app.add_option("--json", json, "a file for the figures");
  CLI11_PARSE(app, argc, argv);

  allowManyDescriptors();
  ServiceHost host;
  std::printf("microseconds, medians of %d rounds; ratios with their quartiles\n\n%s\n", setting.rounds,
              comparison.heading);
  std::vector<Row> rows;
  for (const std::size_t services : comparison.services) {
    rows.push_back(comparison.measure(host, setting, services));
    std::printf("%s\n", rows.back().text.c_str());
    std::fflush(stdout);
  }
  if (!json.empty()) writeJson(json, rows);
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

PopulatedDaemon::PopulatedDaemon(const std::string& program, ServiceHost& host, std::size_t services)
    : process_(program), client_(process_.socket()) {
  for (std::size_t i = 0; i < services; ++i) {
    endpoints_.push_back(host.addService(Speech::dbus));
    client_.checkIn("com.example.bench" + std::to_string(i), endpoints_.back());
  }
}

PopulatedDaemon::~PopulatedDaemon() {
  for (const int endpoint : endpoints_) ::close(endpoint);
}

}  // namespace kelvane::bench
