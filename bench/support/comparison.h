#pragma once

#include <sys/types.h>
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "bench/support/daemon_client.h"
#include "bench/support/daemon_process.h"
#include "bench/support/library_services.h"
#include "bench/support/report.h"
#include "bench/support/service_host.h"

namespace kelvane::bench {

/// What the command line chose.
struct Setting {
  std::string daemon;  // the program
  std::string volume = "/";
  int rounds = 0;
  bool apart = false;  // services have a processor to themselves (see placement.h)
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

/// What the services are made with: the bus library, one thread for all of them, or this project's library.
enum class ServiceKind { bus_library, own_library };
inline constexpr std::array<ServiceKind, 2> service_kinds = {ServiceKind::bus_library,
                                                             ServiceKind::own_library};
/// As figures name it.
[[nodiscard]] const char* nameOf(ServiceKind kind);

/// A daemon of its own with the given number of services checked in, and a client of it. Bare loops use the
/// same number of services of the bus library: the same services, or separate ones if the daemon has those of
/// this project's library.
class PopulatedDaemon {
 public:
  PopulatedDaemon(const Setting& setting, ServiceHost& host, std::size_t services,
                  ServiceKind kind = ServiceKind::bus_library);
  ~PopulatedDaemon();
  PopulatedDaemon(const PopulatedDaemon&) = delete;
  PopulatedDaemon& operator=(const PopulatedDaemon&) = delete;

  [[nodiscard]] const DaemonProcess& process() const { return process_; }
  [[nodiscard]] DaemonClient& client() { return client_; }
  /// Of the services for bare loops.
  [[nodiscard]] const std::vector<int>& endpoints() const { return endpoints_; }
  /// The process of the services that have checked in.
  [[nodiscard]] pid_t servicesID() const { return services_ ? services_->ID() : host_; }

 private:
  const pid_t host_;
  const DaemonProcess process_;
  DaemonClient client_;
  std::vector<int> endpoints_;
  std::optional<LibraryServices> services_;
};

}  // namespace kelvane::bench
