// What one small call costs, against the wire and against a message bus.
//
// clientGetState, in turns: of the daemon; of a stand-in that answers the same from a single-threaded bus
// loop and does nothing else; of the same stand-in through a dbus-daemon of this program's own; and as many
// bytes to and fro on a plain socket: all by a client of the bus library. Also of the daemon by this
// project's own client, on a connection that is open, and by its library, whose every request has a
// connection of its own; the latter's peer is the bus library that connects, calls the stand-in and closes.
// Before that, eight clients of the bus library at once, each a process.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bench/support/comparison.h"
#include "bench/support/message_bus.h"
#include "bench/support/placement.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"
#include "bench/support/temporary_folder.h"
#include "kelvane/client.h"
#include "platform/dispatch/group.h"
#include "support/protocols.h"

namespace kelvane::bench {
namespace {

constexpr const char* key = "com.example.bench";
constexpr std::size_t clients = 8;
constexpr int warm_up = 10;  // calls, before those that count

enum Way : std::size_t { daemon, bare, bus, raw, own_client, library, bare_fresh, ways };
constexpr std::array<const char*, ways> way_names = {"the daemon",
                                                     "bare sd-bus echo",
                                                     "through dbus-daemon",
                                                     "raw AF_UNIX ping-pong",
                                                     "own client",
                                                     "getState of the library",
                                                     "bare sd-bus connect, call, close"};

/// All that answers.
struct Servers {
  explicit Servers(const std::string& program) : process(program) {
    DaemonClient(process.socket()).setState("value", key);
    direct.standInAt(echo_socket);
    on_bus.standInOnBus(message_bus.socket());
  }

  ServiceHost direct;  // these fork, and come before anything that has threads
  ServiceHost on_bus;
  ServiceHost plain;
  const TemporaryFolder folder;
  const std::string echo_socket = folder.path() + "/echo";
  const MessageBus message_bus;
  const DaemonProcess process;
};

using Call = std::function<void()>;

Call callOf(std::shared_ptr<DaemonClient> client) {
  return [client = std::move(client)] {
    if (client->state(key) != "value") std::exit(1);
  };
}

/// On an open connection of this project's own. It makes threads.
Call callOfOwnClient(const std::string& socket) {
  const auto connection = xpc::Connection::initWithSocketPath(socket);
  connection->resume();
  auto proxy = connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>(
      [](const xpc::Error& /*error*/) { std::exit(1); });
  return [proxy = std::move(proxy), answered = dispatch_semaphore_create(0)] {
    proxy->clientGetState(xpc::Anything{std::string(key)}, [&answered](const Value& value) {
      if (value != Value("value")) std::exit(1);
      dispatch_semaphore_signal(answered);
    });
    static_cast<void>(dispatch_semaphore_wait(answered, DISPATCH_TIME_FOREVER));
  };
}

Call callOfLibrary(const std::string& socket) {
  client::ClientOptions options;
  options.daemon_socket = socket;
  return [client = std::make_shared<client::Client>(options)] {
    const auto value = client->getState(key);
    if (!value || *value != Value("value")) std::exit(1);
  };
}

Call connect(Servers& servers, Way way) {
  switch (way) {
    case daemon:
      return callOf(std::make_shared<DaemonClient>(servers.process.socket()));
    case bare:
      return callOf(std::make_shared<DaemonClient>(servers.echo_socket));
    case bus:
      return callOf(std::make_shared<DaemonClient>(servers.message_bus.socket(), echo_name));
    case own_client:
      return callOfOwnClient(servers.process.socket());
    case library:
      return callOfLibrary(servers.process.socket());
    case bare_fresh:
      return [&servers] {
        if (DaemonClient(servers.echo_socket).state(key) != "value") std::exit(1);
      };
    default:
      return [socket = rawConnection(servers.plain.addService(Speech::raw))] { rawRoundTrip(socket); };
  }
}

// --- one client

enum Thing : std::size_t { to_bare = ways, to_bus, to_raw, own_to_bare, library_to_bare, things };

struct Trips {
  std::array<Quartiles, things> found;
  std::array<std::vector<double>, ways> samples;  // microseconds of every call
};

double meanOf(const Call& call, int calls, std::vector<double>& samples) {
  for (int i = 0; i < warm_up; ++i) call();
  double sum = 0;
  for (int i = 0; i < calls; ++i) {
    samples.push_back(microsecondsOf(call));
    sum += samples.back();
  }
  return sum / calls;
}

Trips measureTrips(Servers& servers, int rounds, int calls) {
  std::array<Call, ways> call;
  for (std::size_t way = 0; way < ways; ++way) call[way] = connect(servers, static_cast<Way>(way));
  Trips trips;
  trips.found = quartilesOfRounds<things>(rounds, [&] {
    std::array<double, things> took{};
    for (std::size_t way = 0; way < ways; ++way) took[way] = meanOf(call[way], calls, trips.samples[way]);
    took[to_bare] = took[daemon] / took[bare];
    took[to_bus] = took[daemon] / took[bus];
    took[to_raw] = took[daemon] / took[raw];
    took[own_to_bare] = took[own_client] / took[bare];
    took[library_to_bare] = took[library] / took[bare_fresh];
    return took;
  });
  return trips;
}

void reportTrips(Report& report, const Trips& trips, int rounds) {
  const auto& found = trips.found;
  const auto beside = [&](const char* name, Way what, Way way, Thing ratio, std::optional<Goal> goal) {
    report.figures.push_back(
        {name, "us", rounds, found[what], Peer{way_names[way], found[way], found[ratio]}, goal});
  };
  beside("clientGetState round trip", daemon, bare, to_bare, ratioAtMost(1.15));
  beside("clientGetState round trip, beside a message bus", daemon, bus, to_bus, ratioAtMost(0.2));
  beside("clientGetState round trip, beside a raw socket", daemon, raw, to_raw, std::nullopt);
  beside("clientGetState round trip by the own client", own_client, bare, own_to_bare, std::nullopt);
  beside("getState of the library, with its connection", library, bare_fresh, library_to_bare, std::nullopt);
  for (std::size_t way = 0; way < ways; ++way)
    report.series.push_back(distributionOf(std::string("round trip, ") + way_names[way], trips.samples[way]));
}

// --- eight at once

/// Waits for one byte of each client. The others may wait for one that failed.
void await(int descriptor) {
  constexpr int longest = 60'000;  // milliseconds
  pollfd said{descriptor, POLLIN, 0};
  for (std::size_t i = 0; i < clients; ++i) {
    char byte = 0;
    if (::poll(&said, 1, longest) != 1 || ::read(descriptor, &byte, 1) != 1)
      throw std::runtime_error("a client failed");
  }
}

[[noreturn]] void clientProcess(Servers& servers, Way way, int calls, int says, int hears) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const Call call = connect(servers, way);
  for (int i = 0; i < warm_up; ++i) call();
  char byte = 0;
  if (::write(says, &byte, 1) != 1 || ::read(hears, &byte, 1) != 0) std::_Exit(1);
  for (int i = 0; i < calls; ++i) call();
  std::_Exit(::write(says, &byte, 1) == 1 ? 0 : 1);
}

/// Calls per second of all clients together.
double callsPerSecond(Servers& servers, Way way, int calls) {
  std::array<int, 2> said{};
  std::array<int, 2> gun{};
  if (::pipe(said.data()) != 0 || ::pipe(gun.data()) != 0) std::abort();
  std::vector<pid_t> processes;
  for (std::size_t i = 0; i < clients; ++i) {
    processes.push_back(::fork());
    if (processes.back() < 0) throw std::runtime_error("no process for a client");
    if (processes.back() != 0) continue;
    ::close(gun[1]);
    clientProcess(servers, way, calls, said[1], gun[0]);
  }
  ::close(said[1]);  // so that the end of all is seen
  await(said[0]);
  const double took = microsecondsOf([&] {
    ::close(gun[1]);  // they start
    await(said[0]);
  });
  ::close(said[0]);
  ::close(gun[0]);
  for (const pid_t process : processes) ::waitpid(process, nullptr, 0);
  return static_cast<double>(clients) * calls / took * 1e6;
}

void measureCrowd(Report& report, Servers& servers, int rounds, int calls) {
  const auto found = quartilesOfRounds<5>(rounds, [&]() -> std::array<double, 5> {
    const double through = callsPerSecond(servers, bus, calls);
    const double daemons = callsPerSecond(servers, daemon, calls);
    const double direct = callsPerSecond(servers, bare, calls);
    return {daemons, through, direct, daemons / through, daemons / direct};
  });
  report.add({{"8 clients at once, calls per second", "1/s", rounds, found[0],
               Peer{way_names[bus], found[1], found[3]}, ratioAtLeast(2)},
              {"8 clients at once, calls per second, beside a bare echo", "1/s", rounds, found[0],
               Peer{way_names[bare], found[2], found[4]}}});
}

Report measure(const std::string& program, int rounds, int calls) {
  Report crowd;
  {
    // It forks, and comes before the own client, which has threads.
    Servers servers(program);
    measureCrowd(crowd, servers, rounds, calls);
  }
  // Only one side of a round trip works at a time. Left to the scheduler, the other is at times on a
  // processor that has gone to sleep, and waking it takes longer than the call.
  place(0, Side::far);
  Servers servers(program);
  Report report;
  reportTrips(report, measureTrips(servers, rounds, calls), rounds);
  report.add(std::move(crowd.figures));
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  std::string daemon = kelvane::bench::daemonBesideThisProgram();
  int rounds = 31;
  int calls = 300;
  return kelvane::bench::runProgram(
      argc, argv,
      {"call_bench",
       "Measures one small call, by one client and by eight at once, against the wire and a bus.",
       [&](CLI::App& app) {
         kelvane::bench::addDaemonOption(app, daemon);
         app.add_option("--rounds", rounds, "rounds in which all take turns")->check(CLI::Range(3, 1000));
         app.add_option("--calls", calls, "calls of each client in a round")->check(CLI::Range(1, 100000));
       },
       [&] { return kelvane::bench::measure(daemon, rounds, calls); }});
}
