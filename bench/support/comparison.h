#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/report.h"
#include "bench/support/service_host.h"

namespace kelvane::bench {

/// What the command line chose.
struct Setting {
  std::string daemon;  // the program
  std::string volume = "/";
  int rounds = 0;
};

/// What was found for one number of services.
struct Row {
  std::string text;  // a line of the table
  std::vector<Figure> figures;
};

/// A benchmark that compares the daemon with something, for several numbers of services.
struct Comparison {
  const char* name;
  const char* about;
  const char* heading;  // of the table
  int rounds;
  std::vector<std::size_t> services;
  Row (*measure)(ServiceHost& host, const Setting& setting, std::size_t services);
  /// What compares numbers of services with each other; measured at last.
  std::vector<Figure> (*across)(ServiceHost& host, const Setting& setting) = nullptr;
};

/// The program's whole run, from its command line to its exit status: a line for each number of services as
/// soon as it is measured, and a JSON file when one is asked for.
int runComparison(int argc, char** argv, Comparison comparison);

/// Raises this process's limit, and with it that of those which it starts, as far as it may.
void allowManyDescriptors();

/// Path of the daemon that was built with this program.
std::string daemonBesideThisProgram();

/// A daemon of its own with so many services checked in, and a client of it.
class PopulatedDaemon {
 public:
  PopulatedDaemon(const std::string& program, ServiceHost& host, std::size_t services);
  ~PopulatedDaemon();
  PopulatedDaemon(const PopulatedDaemon&) = delete;
  PopulatedDaemon& operator=(const PopulatedDaemon&) = delete;

  [[nodiscard]] const DaemonProcess& process() const { return process_; }
  [[nodiscard]] DaemonClient& client() { return client_; }
  [[nodiscard]] const std::vector<int>& endpoints() const { return endpoints_; }

 private:
  const DaemonProcess process_;
  DaemonClient client_;
  std::vector<int> endpoints_;
};

}  // namespace kelvane::bench
