// What it costs to empty a folder, beside `find -delete` and `rm -rf`.
//
// Each round makes the same folder anew for each of the ways, one after the other, and times the way from
// outside, the start of the program included. The ways take turns in beginning a round.

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/program.h"
#include "bench/support/quartiles.h"
#include "kelvane/folder_purge.h"

namespace kelvane::bench {
namespace {

namespace fs = std::filesystem;

struct Settings {
  std::string at = fs::temp_directory_path();
  int rounds = 5;
  int small_files = 200'000;
  int large_files = 200;
};

struct Shape {
  const char* name;
  int files;
  int per_folder;
  std::size_t bytes;
};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s failed\n", what.c_str());
  std::exit(1);
}

void makeFile(const std::string& path, std::size_t bytes) {
  const std::vector<char> content(std::size_t{1} << 20, 'x');
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) fail("making " + path);
  for (std::size_t left = bytes; left > 0;) {
    const ssize_t written = ::write(file, content.data(), std::min(left, content.size()));
    if (written <= 0) fail("writing " + path);
    left -= static_cast<std::size_t>(written);
  }
  ::close(file);
}

void make(const std::string& folder, const Shape& shape) {
  for (int i = 0; i < shape.files; ++i) {
    const std::string inner = folder + "/" + std::to_string(i / shape.per_folder);
    if (i % shape.per_folder == 0) fs::create_directories(inner);
    makeFile(inner + "/" + std::to_string(i), shape.bytes);
  }
  const int volume = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ::syncfs(volume);  // what is written later costs nobody's time
  ::close(volume);
}

void run(std::vector<std::string> words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  int status = 0;
  if (::posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0 ||
      ::waitpid(child, &status, 0) != child || status != 0) {
    fail(words[0]);
  }
}

void purge(const std::string& folder, client::FolderPurgeOptions options) {
  const client::Cancellation never(std::make_shared<std::atomic<bool>>(false));
  options.empty_folders = true;
  const auto purged = client::purgeFolder(folder, options, never);
  if (purged.end != client::PurgeEnd::nothingLeft || purged.failures != 0) fail("purging " + folder);
}

struct Way {
  const char* name;
  std::function<void(const std::string&)> empty;
  std::vector<double> seconds{};
  std::vector<double> processor_seconds{};
};

/// Of this process and those that it has waited for.
double processorSeconds() {
  double sum = 0;
  for (const auto whose : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    ::getrusage(whose, &usage);
    for (const timeval& time : {usage.ru_utime, usage.ru_stime})
      sum += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  }
  return sum;
}

double clockSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void time(Way& way, const std::string& folder) {
  const double processor = processorSeconds();
  const double clock = clockSeconds();
  way.empty(folder);
  way.seconds.push_back(clockSeconds() - clock);
  way.processor_seconds.push_back(processorSeconds() - processor);
}

void print(const char* what, const Quartiles& seconds, double beside) {
  std::printf("  %s %8.1f ms (%.1f to %.1f) %.2f", what, seconds.median * 1e3, seconds.low * 1e3,
              seconds.high * 1e3, seconds.median / beside);
}

/// The daemon's library beside what everybody uses; the last two ways are the peers.
std::vector<Figure> figuresOf(const Shape& shape, const std::vector<Way>& ways, int rounds) {
  std::vector<Figure> figures;
  const auto beside = [&](const char* what, const Way& peer, std::vector<double> Way::*measured,
                          std::optional<Goal> goal, const char* note) {
    const std::vector<double>& own = ways[0].*measured;
    const std::vector<double>& others = peer.*measured;
    std::vector<double> ratios;
    for (std::size_t i = 0; i < own.size(); ++i) ratios.push_back(own[i] / others[i]);
    figures.push_back({fmt::format("{}, {} {}", what, shape.files, shape.name), "ms", rounds,
                       quartilesOf(own) * 1e3,
                       Peer{peer.name, quartilesOf(others) * 1e3, quartilesOf(ratios)}, goal, note});
  };
  for (const Way* peer : {&ways[ways.size() - 2], &ways.back()}) {
    beside("folder purge", *peer, &Way::seconds, ratioAtMost(1), "by two threads, the peers by one");
    beside("folder purge, processor time", *peer, &Way::processor_seconds, std::nullopt, "");
  }
  return figures;
}

std::vector<Figure> measure(const Shape& shape, const Settings& settings) {
  using client::PurgeOrder;
  std::vector<Way> ways = {
      {"as found", [](const std::string& it) { purge(it, {}); }},
      {"counted by the volume",
       [](const std::string& it) { purge(it, {.linked_files = true, .counted_by_volume = true}); }},
      {"oldest first", [](const std::string& it) { purge(it, {.order = PurgeOrder::oldestFirst}); }},
      {"find -mindepth 1 -delete",
       [](const std::string& it) {
         run({"find", it, "-mindepth", "1", "-delete"});
       }},
      {"rm -rf", [](const std::string& it) {
         run({"rm", "-rf", it});
       }}};
  const std::string folder = settings.at + "/kelvane-bench-" + std::to_string(::getpid());
  make(folder, shape);  // once for nobody: the volume's memory is fetched
  run({"rm", "-rf", folder});
  for (int round = 0; round < settings.rounds; ++round) {
    for (std::size_t turn = 0; turn < ways.size(); ++turn) {
      Way& way = ways[(turn + static_cast<std::size_t>(round)) % ways.size()];
      make(folder, shape);
      time(way, folder);
      if (fs::exists(folder) && !fs::is_empty(folder)) fail(way.name);
      fs::remove(folder);
    }
  }
  std::printf("%s\n", shape.name);
  const double seconds = quartilesOf(ways[0].seconds).median;
  const double processor_seconds = quartilesOf(ways[0].processor_seconds).median;
  for (const Way& way : ways) {
    std::printf("  %-26s", way.name);
    print("clock", quartilesOf(way.seconds), seconds);
    print("processor", quartilesOf(way.processor_seconds), processor_seconds);
    std::printf("\n");
  }
  return figuresOf(shape, ways, settings.rounds);
}

Report measureBoth(const Settings& settings) {
  Report report;
  report.add(
      measure({"small files of 4 KiB, 1,000 in a folder", settings.small_files, 1000, 4096}, settings));
  report.add(measure(
      {"large files of 16 MiB, 50 in a folder", settings.large_files, 50, std::size_t{16} << 20}, settings));
  return report;
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  kelvane::bench::Settings settings;
  return kelvane::bench::runProgram(
      argc, argv,
      {"folder_purge_bench", "What emptying a folder costs: medians, and where half of the rounds lie",
       [&](CLI::App& app) {
         app.add_option("--at", settings.at, "where to make the folder")->check(CLI::ExistingDirectory);
         app.add_option("--rounds", settings.rounds, "rounds of each way")->check(CLI::PositiveNumber);
         app.add_option("--small-files", settings.small_files, "how many small ones")
             ->check(CLI::PositiveNumber);
         app.add_option("--large-files", settings.large_files, "how many large ones")
             ->check(CLI::PositiveNumber);
       },
       [&] { return kelvane::bench::measureBoth(settings); }, false});
}
