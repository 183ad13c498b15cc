// How soon kelvane-caches answers when the first call starts it, and when it is running.
//
// With a socket for each of several caches, alternately: a question on one socket that starts the program,
// and then the same question again; each timed from the connection to the answer. The caches are on a volume
// at /var/cache in a private mount namespace:
//
//   script/lib/private-root.sh -- build/release/bin/caches_start_bench

#include <fmt/format.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/support/program.h"
#include "bench/support/rounds.h"
#include "common/keys.h"
#include "platform/xpc/connection.h"
#include "support/protocols.h"

namespace kelvane::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* volume = "/var/cache";
constexpr const char* configuration = "/var/cache/configuration";
constexpr int first_descriptor = 3;

enum Thing : std::size_t { first, second, things };

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
}

void makeVolume() {
  require(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              ::mount("kelvane-bench", volume, "tmpfs", 0, "mode=755,size=1g") == 0,
          "cannot mount a volume; run me in script/lib/private-root.sh");
  fs::create_directories(fmt::format("{}/caches.d", configuration));
}

std::string nameOf(std::size_t cache) { return fmt::format("bench-{}", cache); }

void makeCache(std::size_t cache, std::size_t files) {
  const std::string name = nameOf(cache);
  std::ofstream(fmt::format("{}/caches.d/{}.toml", configuration, name)) << fmt::format(
      "[holder]\nname = \"{0}\"\nsummary = \"of a benchmark\"\nkind = \"files\"\nfor = \"system\"\n"
      "class = \"regenerable\"\nroots = [\"/var/cache/{0}\"]\n[urgency]\n2 = \"30d\"\n3 = \"7d\"\n4 = "
      "\"1h\"\n",
      name);
  fs::create_directory(fmt::format("{}/{}", volume, name));
  for (std::size_t i = 0; i < files; ++i)
    std::ofstream(fmt::format("{}/{}/{}", volume, name, i)) << std::string(4096, 'x');
}

int listenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
              ::listen(socket, SOMAXCONN) == 0,
          path);
  return socket;
}

/// Stands in for the service manager: opens the sockets, and starts a process that inherits them.
class Manager {
 public:
  explicit Manager(std::size_t caches) {
    std::string names;
    for (std::size_t i = 0; i < caches; ++i) {
      sockets_.push_back(listenAt(pathOf(i)));
      names += (i == 0 ? "" : ":") + nameOf(i);
    }
    environment_ = {fmt::format("LISTEN_FDS={}", caches), "LISTEN_FDNAMES=" + names,
                    fmt::format("CONFIGURATION_DIRECTORY={}", configuration)};
    program_ = fs::read_symlink("/proc/self/exe").parent_path() / "kelvane-caches";
  }
  [[nodiscard]] static std::string pathOf(std::size_t cache) {
    return fmt::format("{}/{}.sock", configuration, nameOf(cache));
  }

  void startWhenSomebodyCalls() {
    std::vector<pollfd> waiting;
    for (const int socket : sockets_) waiting.push_back({socket, POLLIN, 0});
    require(::poll(waiting.data(), waiting.size(), -1) > 0, "poll");
    // A shell, because the program must know its own id and this process has threads.
    std::string script = "LISTEN_PID=$$ exec \"$0\"";
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::array<char*, 5> arguments = {shell.data(), option.data(), script.data(), program_.data(), nullptr};
    std::vector<char*> variables;
    for (std::string& variable : environment_) variables.push_back(variable.data());
    variables.push_back(nullptr);
    process_ = ::fork();
    require(process_ >= 0, "fork");
    if (process_ == 0) become(arguments.data(), variables.data());
  }
  void end() const {
    ::kill(process_, SIGTERM);
    int status = 0;
    require(::waitpid(process_, &status, 0) == process_ && status == 0, "kelvane-caches failed");
  }

 private:
  /// Uses system calls only, because another thread may hold a lock that a library call needs.
  [[noreturn]] void become(char* const* arguments, char* const* variables) const {
    constexpr int out_of_the_way = 1000;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int number = out_of_the_way;
    for (const int socket : sockets_) ::dup3(socket, number++, O_CLOEXEC);
    for (std::size_t i = 0; i < sockets_.size(); ++i)
      ::dup2(out_of_the_way + static_cast<int>(i), first_descriptor + static_cast<int>(i));
    ::execve(arguments[0], arguments, variables);
    ::_exit(127);
  }

  std::vector<int> sockets_;
  std::vector<std::string> environment_;
  std::string program_;
  pid_t process_ = -1;
};

/// Asks one cache, and calls `meanwhile` after sending the question.
template <class What>
void ask(What meanwhile) {
  std::promise<std::uint64_t> answered;
  const auto connection = xpc::Connection::initWithSocketPath(Manager::pathOf(0));
  connection->resume();
  const auto service =
      connection->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>([&](const xpc::Error& error) {
        answered.set_exception(std::make_exception_ptr(std::runtime_error(error.description())));
      });
  service->servicePurgeable(
      4, Dictionary{{KELVANE_VOLUME, volume}, {KELVANE_URGENCY, 4}}, [&](std::optional<Dictionary> answer) {
        answered.set_value(answer ? (*answer)[KELVANE_AMOUNT].unsignedLongLongValue() : 1);
      });
  meanwhile();
  const std::uint64_t bytes = answered.get_future().get();
  connection->invalidate();
  if (bytes != 0) throw std::runtime_error("files that were just written cannot be purgeable");
}

std::array<double, things> round(Manager& manager) {
  const double started = microsecondsOf([&] { ask([&] { manager.startWhenSomebodyCalls(); }); });
  const double again = microsecondsOf([] { ask([] {}); });
  manager.end();
  return {started, again};
}

Report measure(std::size_t caches, std::size_t files, int rounds) {
  makeVolume();
  for (std::size_t i = 0; i < caches; ++i) makeCache(i, files);
  Manager manager(caches);
  const auto found = quartilesOfRounds<things>(rounds, [&] { return round(manager); });
  constexpr double ms = 1e-3;
  return {{{fmt::format("cache service: from the call that starts it to its answer, {} sockets", caches),
            "ms",
            rounds,
            found[first] * ms,
            {},
            medianAtMost(300)},
           {fmt::format("cache service: a question while it runs, {} files", files), "ms", rounds,
            found[second] * ms}}};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  std::size_t caches = 25;
  std::size_t files = 1000;
  int rounds = 21;
  return kelvane::bench::runProgram(
      argc, argv,
      {"caches_start_bench", "Measures the start of kelvane-caches. Run it in script/lib/private-root.sh.",
       [&](CLI::App& app) {
         app.add_option("--caches", caches, "how many sockets there are")->check(CLI::Range(1, 200));
         app.add_option("--files", files, "in each cache")->check(CLI::Range(0, 100000));
         app.add_option("--rounds", rounds, "how often each is measured")->check(CLI::PositiveNumber);
       },
       [&] { return kelvane::bench::measure(caches, files, rounds); }});
}
