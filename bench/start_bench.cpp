// What it costs to start, and how soon the daemon is gone and back.
//
// In turns: the daemon's start, from its creation to the launched notification, without descriptors and with
// them, for the very first start and for one that finds an existing settings file; without descriptors also
// that of another daemon, if one is given with --beside; reading and parsing the
// same files with nothing but the property-list library; and the end by SIGTERM in the middle of a purge,
// then the start to the first answer.
//
// Writes descriptors to /System/Library/Kelvane, so that must be an empty folder of this program's own:
//
//   script/lib/private-root.sh -- build/release/bin/start_bench

#include <fmt/format.h>
#include <plist/plist.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/support/comparison.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"

namespace kelvane::bench {
namespace {

namespace fs = std::filesystem;

const fs::path descriptors = "/System/Library/Kelvane";

enum Thing : std::size_t {
  empty,
  full,
  first_full,
  added,
  parsing,
  ratio,
  first_ratio,
  added_ratio,
  gone,
  back,
  beside,  // 0 without another daemon
  beside_ratio,
  things
};

void writeDescriptors(std::size_t count) {
  if (!fs::is_directory(descriptors) || !fs::is_empty(descriptors)) {
    throw std::runtime_error(
        "/System/Library/Kelvane must be an empty folder; run me in script/lib/private-root.sh");
  }
  for (std::size_t i = 0; i < count; ++i) {
    std::ofstream(descriptors / fmt::format("com.example.service{}.plist", i)) << fmt::format(
        R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//W3C//DTD PLIST 1.0//EN" "http://www.w3.org/TR/plist/plist-1.0.dtd">
<plist version="1.0">
<dict>
  <key>KELVANE_ID</key><string>com.example.service{}</string>
  <key>KELVANE_SERVICES</key><array><string>PURGE</string><string>PERIODIC</string></array>
  <key>KELVANE_NOTIFICATIONS</key><array><string>KELVANE_CACHE_ENABLED</string></array>
</dict>
</plist>
)",
        i);
  }
}

void parseBare() {
  for (const auto& entry : fs::directory_iterator(descriptors)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    plist_t list = nullptr;
    plist_from_memory(text.data(), static_cast<std::uint32_t>(text.size()), &list);
    if (list == nullptr) throw std::runtime_error("cannot parse " + entry.path().string());
    plist_free(list);
  }
}

/// While the folder has another name, the daemon finds it empty.
template <class What>
auto withoutDescriptors(What what) {
  fs::rename(descriptors, "/System/Library/Elsewhere");
  fs::create_directory(descriptors);
  const auto took = what();
  fs::remove(descriptors);
  fs::rename("/System/Library/Elsewhere", descriptors);
  return took;
}

/// The first one, which makes the settings file, and the one after that, as there are many.
struct Starts {
  double first;
  double usual;
};
Starts startsOf(const std::string& program) {
  std::unique_ptr<DaemonProcess> daemon;
  Starts took{};
  took.first = microsecondsOf([&] { daemon = std::make_unique<DaemonProcess>(program); });
  daemon->end();
  took.usual = microsecondsOf([&] { daemon->start(); });
  return took;
}

/// A client that asks for one purge after the other until the daemon is gone, in a process of its own.
class Asking {
 public:
  /// Returns when one purge is over and the next one under way, or nearly.
  explicit Asking(const std::string& socket) : purged_(::eventfd(0, EFD_CLOEXEC)), process_(::fork()) {
    if (process_ == 0) ask(socket);
    eventfd_t once = 0;
    ::eventfd_read(purged_, &once);
    ::close(purged_);
  }
  ~Asking() { ::waitpid(process_, nullptr, 0); }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

 private:
  [[noreturn]] void ask(const std::string& socket) const {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(STDERR_FILENO);  // it will say that the daemon failed
    DaemonClient client(socket);
    static_cast<void>(client.purge("/", 1 << 20));
    ::eventfd_write(purged_, 1);
    while (true) static_cast<void>(client.purge("/", 1 << 20));
  }

  const int purged_;
  const pid_t process_;
};

struct EndAndStart {
  double gone;
  double back;
};

/// Ended in the middle of a purge; back with what it was told to keep.
EndAndStart endAndStart(const std::string& program) {
  constexpr std::size_t services = 300;
  DaemonProcess daemon(program);
  ServiceHost host;
  {
    DaemonClient client(daemon.socket());
    for (std::size_t i = 0; i < services; ++i) {
      const int endpoint = host.addService(Speech::dbus);
      client.checkIn(fmt::format("com.example.service{}", i), endpoint);
      ::close(endpoint);
    }
    client.setState("kept", "com.example.bench");
  }
  const Asking asking(daemon.socket());
  EndAndStart took{};
  took.gone = microsecondsOf([&] { daemon.end(); });
  took.back = microsecondsOf([&] {
    daemon.start();
    if (DaemonClient(daemon.socket()).state("com.example.bench") != "kept") {
      throw std::runtime_error("the daemon has lost what it had acknowledged");
    }
  });
  return took;
}

struct Programs {
  std::string daemon = daemonBesideThisProgram();
  std::string beside;  // may be empty
};

std::array<double, things> round(const Programs& programs) {
  const std::string& program = programs.daemon;
  const Starts without = withoutDescriptors([&] { return startsOf(program); });
  const Starts other =
      programs.beside.empty() ? Starts{} : withoutDescriptors([&] { return startsOf(programs.beside); });
  const Starts with = startsOf(program);
  const double parsed = microsecondsOf(parseBare);
  const EndAndStart ended = endAndStart(program);
  const double more = with.usual - without.usual;
  return {without.usual,
          with.usual,
          with.first,
          more,
          parsed,
          with.usual / parsed,
          with.first / parsed,
          more / parsed,
          ended.gone,
          ended.back,
          other.usual,
          other.usual > 0 ? without.usual / other.usual : 0};
}

Report measure(const Programs& programs, std::size_t count, int rounds) {
  allowManyDescriptors();
  writeDescriptors(count);
  const auto found = quartilesOfRounds<things>(rounds, [&] { return round(programs); });
  constexpr double ms = 1e-3;
  const auto beside_parsing = [&](Thing which) {
    return Peer{"reading and parsing them bare", found[parsing] * ms, found[which]};
  };
  Figure empty_start{"start to the launched notification, no descriptors", "ms", rounds, found[empty] * ms};
  if (!programs.beside.empty()) {
    empty_start.peer = Peer{"the daemon of --beside", found[beside] * ms, found[beside_ratio]};
    empty_start.goal = ratioAtMost(0.8);
  }
  return {{{fmt::format("start to the launched notification, {} descriptors", count), "ms", rounds,
            found[full] * ms, beside_parsing(ratio), ratioAtMost(1.5)},
           {fmt::format("the very first start, {} descriptors", count), "ms", rounds, found[first_full] * ms,
            beside_parsing(first_ratio)},
           {fmt::format("what {} descriptors add to the start", count), "ms", rounds, found[added] * ms,
            beside_parsing(added_ratio)},
           empty_start,
           {"SIGTERM in the middle of a purge to the end", "ms", rounds, found[gone] * ms},
           {"start to the first answer after that", "ms", rounds, found[back] * ms}}};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Programs programs;
  std::size_t count = 1000;
  int rounds = 21;
  return kelvane::bench::runProgram(
      argc, argv,
      {"start_bench", "Measures the daemon's start and end. Run it in script/lib/private-root.sh.",
       [&](CLI::App& app) {
         kelvane::bench::addDaemonOption(app, programs.daemon);
         app.add_option("--beside", programs.beside, "another daemon, for the start without descriptors")
             ->check(CLI::ExistingFile);
         app.add_option("--descriptors", count, "how many services are declared")
             ->check(CLI::Range(1, 100000));
         app.add_option("--rounds", rounds, "how often each is measured")->check(CLI::PositiveNumber);
       },
       [&] { return kelvane::bench::measure(programs, count, rounds); }});
}
