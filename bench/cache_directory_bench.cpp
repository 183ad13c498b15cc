// What it costs to count and to purge a cache directory of many small files, beside find and `rm -rf`, and
// how much memory that takes.
//
// Each way is a separate program (for the library, this one again), timed from outside including its start.
// Counting alternates with find on the same files; the same files are made again for each purge.

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/program.h"
#include "bench/support/quartiles.h"
#include "kelvane/cache_directory.h"

namespace kelvane::bench {
namespace {

namespace fs = std::filesystem;
using client::CacheDirectory;

constexpr double most_megabytes = 20;
constexpr int files_in_a_directory = 1000;

struct Settings {
  std::string at = fs::temp_directory_path();
  std::string only;  // the way that this program runs as
  int rounds = 5;
  int files = 100'000;
  int directories = 100'000;
};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s failed\n", what.c_str());
  std::exit(1);
}

void makeFiles(const std::string& root, int files) {
  for (int i = 0; i < files; ++i) {
    const std::string inner = root + "/" + std::to_string(i / files_in_a_directory);
    if (i % files_in_a_directory == 0) fs::create_directories(inner);
    const std::string path = inner + "/" + std::to_string(i);
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0 || ::write(file, path.data(), path.size()) <= 0) fail("making " + path);
    ::close(file);
  }
  const int volume = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ::syncfs(volume);  // later writing must not cost measured time
  ::close(volume);
}

double clockSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct Cost {
  double seconds = 0;
  double megabytes = 0;  // resident, at most
};

/// Its output is discarded.
Cost costOf(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const double began = clockSeconds();
  pid_t child = 0;
  int status = 0;
  rusage usage{};
  if (::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) != 0 ||
      ::wait4(child, &status, 0, &usage) != child || status != 0) {
    fail(words[0]);
  }
  const double seconds = clockSeconds() - began;
  ::posix_spawn_file_actions_destroy(&actions);
  return {seconds, static_cast<double>(usage.ru_maxrss) / 1024};
}

Cost costOfOwn(const std::string& what, const std::string& root) {
  return costOf({"/proc/self/exe", "--only", what, "--at", root});
}

Cost costOfFind(const std::string& root) {
  return costOf({"find", root, "-type", "f", "-printf", "%s %T@\n"});
}

struct Turns {
  std::vector<double> own{};
  std::vector<double> peer{};
  std::vector<double> megabytes{};
};

/// The order alternates from round to round.
Turns inTurns(int rounds, const std::function<Cost()>& own, const std::function<Cost()>& peer) {
  Turns turns;
  for (int round = 0; round < rounds; ++round) {
    if (round % 2 == 1) turns.peer.push_back(peer().seconds);
    const Cost cost = own();
    turns.own.push_back(cost.seconds);
    turns.megabytes.push_back(cost.megabytes);
    if (round % 2 == 0) turns.peer.push_back(peer().seconds);
  }
  return turns;
}

std::vector<Figure> figuresOf(const std::string& what, const Turns& turns, const std::string& peer,
                              double ratio) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < turns.own.size(); ++i) ratios.push_back(turns.own[i] / turns.peer[i]);
  const int rounds = static_cast<int>(turns.own.size());
  return {{what, "ms", rounds, quartilesOf(turns.own) * 1e3,
           Peer{peer, quartilesOf(turns.peer) * 1e3, quartilesOf(ratios)}, ratioAtMost(ratio),
           "by two threads, the peer by one"},
          {what + ", resident memory", "MB", rounds, quartilesOf(turns.megabytes), std::nullopt,
           medianAtMost(most_megabytes)}};
}

/// A directory that is removed unless this program is killed.
class Root {
 public:
  explicit Root(const std::string& at) : path_(at + "/kelvane-bench-" + std::to_string(::getpid())) {
    fs::create_directories(path_);
  }
  ~Root() { costOf({"rm", "-rf", path_}); }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

std::vector<Figure> counting(const Settings& settings) {
  const Root root(settings.at);
  makeFiles(root.path(), settings.files);
  costOfFind(root.path());  // not measured: fills the file system's caches
  const Turns turns = inTurns(
      settings.rounds, [&] { return costOfOwn("survey", root.path()); },
      [&] { return costOfFind(root.path()); });
  return figuresOf(fmt::format("cache survey, {} files", settings.files), turns, "find -printf", 1.2);
}

std::vector<Figure> purging(const Settings& settings) {
  const Root root(settings.at);
  const std::string cache = root.path() + "/cache";
  const auto again = [&](const std::function<Cost()>& way) {
    makeFiles(cache, settings.files);
    const Cost cost = way();
    fs::remove_all(cache);
    return cost;
  };
  const Turns turns = inTurns(
      settings.rounds, [&] { return again([&] { return costOfOwn("purge", cache); }); },
      [&] { return again([&] {
              return costOf({"rm", "-rf", cache});
            }); });
  return figuresOf(fmt::format("cache purge, {} files", settings.files), turns, "rm -rf", 1.0);
}

std::vector<Figure> wide(const Settings& settings) {
  const Root root(settings.at);
  for (int i = 0; i < settings.directories; ++i) fs::create_directory(root.path() + "/" + std::to_string(i));
  const Turns turns = inTurns(
      settings.rounds, [&] { return costOfOwn("survey", root.path()); },
      [&] { return costOfFind(root.path()); });
  return figuresOf(fmt::format("cache survey, {} directories in one", settings.directories), turns,
                   "find -printf", 1.2);
}

int doOnly(const Settings& settings) {
  client::CacheRules rules;
  rules.ages.fill(std::chrono::seconds(0));
  rules.youngest = std::chrono::seconds(0);
  const auto cache = CacheDirectory::open(settings.at, rules);
  if (!cache) fail(cache.error().reason);
  const client::CacheLimits limits{client::Cancellation(std::make_shared<std::atomic<bool>>(false))};
  if (settings.only == "survey") return (*cache)->survey(limits).complete ? 0 : 1;
  const auto purge = (*cache)->purge(client::most_urgent, {INT64_MAX}, UINT64_MAX, limits);
  return purge.end == client::CachePurge::End::nothingLeft && purge.failures == 0 ? 0 : 1;
}

Report measure(const Settings& settings) {
  Report report;
  if (!settings.only.empty()) std::exit(doOnly(settings));
  report.add(counting(settings));
  report.add(purging(settings));
  report.add(wide(settings));
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Settings settings;
  return kelvane::bench::runProgram(
      argc, argv,
      {"cache_directory_bench", "What counting and purging a cache directory costs",
       [&](CLI::App& app) {
         app.add_option("--at", settings.at, "where to make the files")->check(CLI::ExistingDirectory);
         app.add_option("--rounds", settings.rounds, "rounds of each way")->check(CLI::PositiveNumber);
         app.add_option("--files", settings.files, "how many files")->check(CLI::PositiveNumber);
         app.add_option("--directories", settings.directories, "how many directories in one")
             ->check(CLI::PositiveNumber);
         app.add_option("--only", settings.only, "survey or purge the directory, and measure nothing")
             ->check(CLI::IsMember({"survey", "purge"}));
       },
       [&] { return kelvane::bench::measure(settings); }});
}
