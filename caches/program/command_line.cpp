#include "caches/program/command_line.h"

#include <fmt/format.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "caches/program/commands.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

using tools::CachesCommand;

constexpr const char* description =
    "Gives caches back. Without a command it serves the daemon on the sockets that the service manager hands "
    "over.";

int complain(tools::ExitCode code, const std::string& text) {
  std::fputs(
      fmt::format("kelvane-caches: {}\n", tools::printable(tools::screenOf(STDERR_FILENO), text)).c_str(),
      stderr);
  return code;
}

std::unique_ptr<Workers> startWorkers(const DefinitionStore& store) {
  auto workers = Workers::start(store.definitions);
  if (workers == nullptr) {
    throw tools::Problem(tools::exit_failed,
                         fmt::format("cannot start the spawner: {}", std::strerror(errno)));
  }
  return workers;
}

int run(const Console& console) {
  if (console.request.command == CachesCommand::check) return checkCommand(console);
  const DefinitionDirectories directories = definitionDirectories();
  const DefinitionStore store = readDefinitions(directories);
  for (const Problem& problem : store.problems) complain(tools::exit_met, problem.text());
  if (console.request.command == CachesCommand::enable) return enableCommand(console, store, directories);
  if (console.request.command == CachesCommand::disable) return disableCommand(console, store, directories);
  if (console.request.command == CachesCommand::explain) {
    static_cast<void>(definitionNamed(store, console.request.name));
    return explainCommand(console, store, *startWorkers(store));
  }
  return listCommand(console, store, *startWorkers(store));
}

int parseAndRun(int argc, char** argv) {
  Console console;
  CLI::App app(description, "kelvane-caches");
  app.require_subcommand(1);
  app.add_flag("--json", console.json, "Print JSON instead of a screen");
  app.set_version_flag("--version", "kelvane-caches " KELVANE_VERSION);
  tools::describeCaches(app, console.request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string reason = error.what();
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return complain(tools::exit_usage, reason + "; see `kelvane-caches --help`");
  }
  console.screen = tools::screenOf(STDOUT_FILENO);
  return run(console);
}

}  // namespace

const Definition& definitionNamed(const DefinitionStore& store, const std::string& name) {
  const auto found = std::find_if(store.definitions.begin(), store.definitions.end(),
                                  [&](const Definition& definition) { return definition.name == name; });
  if (found != store.definitions.end()) return *found;
  if (std::find(store.masked.begin(), store.masked.end(), name) != store.masked.end()) {
    throw tools::Problem(
        tools::exit_usage,
        fmt::format("the cache \"{0}\" is masked; `kelvanectl caches enable {0}` switches it on", name));
  }
  throw tools::Problem(
      tools::exit_usage,
      fmt::format("unknown cache \"{}\": `kelvanectl caches` lists those that are known", name));
}

client::CacheLimits noLimits() {
  return {client::Cancellation(std::make_shared<std::atomic<bool>>(false)),
          std::chrono::steady_clock::time_point::max()};
}

void print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
    throw tools::Problem(tools::exit_failed, fmt::format("standard output: {}", std::strerror(errno)));
}

int runCommandLine(int argc, char** argv) noexcept {
  try {
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_DFL);  // the parent process may have ignored it
    return parseAndRun(argc, argv);
  } catch (const tools::Problem& problem) {
    return complain(problem.code(), problem.what());
  } catch (const std::exception& error) {
    return complain(tools::exit_failed, error.what());
  }
}

}  // namespace kelvane::caches
