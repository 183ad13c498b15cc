// What the check-in of a service costs, one after another, against what the wire alone costs.
//
// A check-in that comes in on an open connection makes the daemon open one to the service and ping it: one
// connection, one handshake, two calls. Most services come with a connection of their own, which is one
// connection and one handshake more. Beside each, in turns, a bare client opens a connection to a stand-in
// that answers from a single-threaded bus loop, and makes two calls on it: the same check-in, and a small
// one.

#include <fmt/format.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/comparison.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"
#include "bench/support/temporary_folder.h"

namespace kelvane::bench {
namespace {

enum Thing : std::size_t { shared, own, bare, shared_ratio, own_ratio, things };

using Connections = std::vector<std::unique_ptr<DaemonClient>>;

/// The services of one round: half check in over one connection, half over their own.
class Round {
 public:
  Round(const std::string& daemon, ServiceHost& services, const std::string& bare_socket, std::size_t count)
      : services_(services),
        bare_socket_(bare_socket),
        count_(count),
        daemon_(daemon),
        client_(daemon_.socket()) {}

  std::array<double, things> run() {
    std::array<double, things> took{};
    client_.setState("value", "com.example.bench");  // whatever is done once has been done
    for (std::size_t i = 0; i < count_; ++i) {
      took[shared] += checkIn(i, [&](auto... what) { client_.checkIn(what...); });
      took[own] += checkIn(count_ + i, [&](auto... what) { connect(daemon_.socket()).checkIn(what...); });
      took[bare] += microsecondsOf([&] { checkInBare(fmt::format("com.example.bench{}", i)); });
    }
    for (const Thing thing : {shared, own, bare}) took[thing] /= static_cast<double>(count_);
    took[shared_ratio] = took[shared] / took[bare];
    took[own_ratio] = took[own] / took[bare];
    return took;
  }

 private:
  DaemonClient& connect(const std::string& socket) {
    open_.push_back(std::make_unique<DaemonClient>(socket));
    return *open_.back();
  }

  /// The microseconds that it takes; the making of the service is not counted.
  template <class What>
  double checkIn(std::size_t number, What what) {
    const int endpoint = services_.addService(Speech::dbus);
    const std::string ID = fmt::format("com.example.bench{}", number);
    const double took = microsecondsOf([&] { what(ID, endpoint); });
    ::close(endpoint);
    return took;
  }

  /// With a descriptor that wakes nobody when the stand-in closes it.
  void checkInBare(const std::string& ID) {
    DaemonClient& client = connect(bare_socket_);
    client.checkIn(ID, STDERR_FILENO);
    client.state("com.example.bench");
  }

  ServiceHost& services_;
  const std::string& bare_socket_;
  const std::size_t count_;
  const DaemonProcess daemon_;
  DaemonClient client_;
  Connections open_;
};

Report measure(const std::string& daemon, std::size_t count, int rounds) {
  allowManyDescriptors();
  const TemporaryFolder folder;
  const std::string bare_socket = folder.path() + "/bare";
  ServiceHost bare_host;
  bare_host.standInAt(bare_socket);
  const auto found = quartilesOfRounds<things>(rounds, [&] {
    ServiceHost services;
    return Round(daemon, services, bare_socket, count).run();
  });
  Report report;
  const auto beside = [&](const char* name, Thing thing, Thing ratio) {
    report.figures.push_back(
        {fmt::format("check-in of {} services, each, {}", count, name), "us", rounds, found[thing],
         Peer{"bare sd-bus connect, handshake, two calls", found[bare], found[ratio]}, ratioAtMost(1.8)});
  };
  beside("over an open connection", shared, shared_ratio);
  beside("over a connection of its own", own, own_ratio);
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  std::string daemon = kelvane::bench::daemonBesideThisProgram();
  std::size_t count = 1000;
  int rounds = 9;
  return kelvane::bench::runProgram(
      argc, argv,
      {"checkin_bench", "Measures the check-in of services against bare connections and calls.",
       [&](CLI::App& app) {
         kelvane::bench::addDaemonOption(app, daemon);
         app.add_option("--services", count, "how many check in, in each way")->check(CLI::Range(1, 2000));
         app.add_option("--rounds", rounds, "rounds, each with a daemon of its own")
             ->check(CLI::Range(3, 1000));
       },
       [&] { return kelvane::bench::measure(daemon, count, rounds); }});
}
