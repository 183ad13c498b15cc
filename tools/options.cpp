#include "tools/options.h"

#include <fmt/format.h>
#include <unistd.h>
#include <clocale>
#include <csignal>
#include <cstdio>

#include "support/space_thresholds.h"
#include "tools/amount.h"
#include "tools/commands.h"
#include "tools/problem.h"

namespace kelvane::tools {
namespace {

using Command = int (*)(const Options&, const Screen&);

CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description,
                     Command command) {
  CLI::App* const added = app.add_subcommand(name, description);
  added->fallthrough();
  added->callback([&options, command] { options.command = command; });
  return added;
}

void addUrgency(CLI::App& command, Options& options) {
  command
      .add_option("-u,--urgency", options.urgency,
                  "How far to go: 1 (only what nobody will miss) to 4 (all that can be made again)")
      ->capture_default_str()
      ->check(CLI::Range(1, 4))
      ->type_name("1-4");
}

CLI::Option* addVolume(CLI::App& command, Options& options) {
  return command.add_option("volume", options.volume, "A volume, or any path inside one")->type_name("PATH");
}

void addAmount(CLI::App& command, Options& options) {
  command
      .add_option_function<std::string>(
          "amount",
          [&options](const std::string& text) {
            const auto amount = parseAmount(text);
            if (const auto* const wrong = std::get_if<NoAmount>(&amount))
              throw CLI::ValidationError(wrong->reason, CLI::ExitCodes::ValidationError);
            options.amount = std::get<std::uint64_t>(amount);
          },
          "How much to free, such as 500M, 1.5GiB or 4096. K, M, G, T, P and KiB, MiB ... count by 1024, KB, "
          "MB ... by 1000")
      ->required()
      ->type_name("SIZE");
}

void describePurge(CLI::App& app, Options& options) {
  CLI::App* const purge = addCommand(app, options, "purge", "Free space on a volume", purgeCommand);
  addVolume(*purge, options)->required();
  addAmount(*purge, options);
  addUrgency(*purge, options);
  purge
      ->add_option("--pass-seconds", options.pass_seconds,
                   "How long to wait for the services in each pass; 0: 2, 4, 6, 8 seconds")
      ->capture_default_str()
      ->check(CLI::Range(0, 300))
      ->type_name("SECONDS");
}

void describeWatch(CLI::App& app, Options& options) {
  CLI::App* const watch =
      addCommand(app, options, "watch", "Show the volumes and what purges free, again and again; q ends it",
                 watchCommand);
  watch
      ->add_option_function<std::string>(
          "--interval",
          [&options](const std::string& text) {
            const auto seconds = parseSeconds(text);
            if (const auto* const wrong = std::get_if<NoAmount>(&seconds))
              throw CLI::ValidationError(wrong->reason, CLI::ExitCodes::ValidationError);
            options.interval_seconds = std::get<double>(seconds);
          },
          "Seconds between two looks, 0.1 to 3600; default: 1")
      ->type_name("SECONDS");
  watch->add_option("--count", options.count, "End after so many looks")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000'000}))
      ->type_name("N");
}

void describeState(CLI::App& app, Options& options) {
  CLI::App* const state = app.add_subcommand("state", "Look into and change the daemon's key-value store");
  state->require_subcommand(1)->fallthrough();
  CLI::App* const get =
      addCommand(*state, options, "get", "Print a value as JSON; exit code 1 for none", stateGetCommand);
  CLI::App* const set = addCommand(*state, options, "set", "Store a value", stateSetCommand);
  CLI::App* const remove = addCommand(*state, options, "delete", "Remove a value", stateDeleteCommand);
  for (CLI::App* const command : {get, set, remove})
    command->add_option("key", options.key, "The value's key")->required()->type_name("KEY");
  set->add_option("value", options.value, "The value, as JSON")->required()->type_name("JSON");
}

void describeLaunch(CLI::App& app, Options& options) {
  CLI::App* const activity =
      app.add_subcommand("activity", "Start what runs in the daemon by schedule; for root");
  activity->require_subcommand(1)->fallthrough();
  addCommand(*activity, options, "run", "Run an activity, and wait until it is over", activityRunCommand)
      ->add_option("name", options.name, "Such as com.orvel.Kelvane.daily")
      ->required()
      ->type_name("NAME");
  CLI::App* const events = app.add_subcommand("events", "Tell the daemon of events; for root");
  events->require_subcommand(1)->fallthrough();
  CLI::App* const post = addCommand(*events, options, "post",
                                    "Post an event, and wait until it is dealt with", eventsPostCommand);
  post->add_option("stream", options.name, "Such as com.orvel.dispatch.vfs")->required()->type_name("STREAM");
  post->add_option("event", options.value, "The event, as a JSON object; default: {}")->type_name("JSON");
}

void describeCachesCommands(CLI::App& app, Options& options) {
  CLI::App* const caches = app.add_subcommand(
      "caches", "Show the caches that the package kelvane-caches gives back, and what of them would go");
  caches->require_subcommand(0, 1)->fallthrough();
  caches->callback([&options] { options.command = cachesCommand; });  // without a command: list
  describeCaches(*caches, options.caches);
}

std::string footer() {
  std::string text = "Exit codes:";
  for (const ExitCodeText& code : exitCodeTexts()) text += fmt::format("\n  {:>3}  {}", code.code, code.text);
  return text;
}

/// True for an option of the chosen command that takes a value.
bool takesValue(const CLI::App& app, const std::string& word) {
  const auto chosen = app.get_subcommands();
  if (chosen.empty() || !word.starts_with('-')) return false;
  const CLI::Option* const option = chosen.front()->get_option_no_throw(word);
  return option != nullptr && option->get_type_size() != 0;
}

/// An amount or the like that begins with "-" is read as an option, and so is missed.
std::string reasonOf(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '-' || argv[i][1] < '0' || argv[i][1] > '9') continue;
    if (takesValue(app, argv[i - 1]))
      return fmt::format("{}: \"{}\" is less than it can be", argv[i - 1], argv[i]);
    return std::get<NoAmount>(parseAmount(argv[i])).reason;
  }
  if (app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-')
    return fmt::format("there is no command \"{}\"", argv[1]);
  std::string reason = error.what();
  for (char& c : reason) c = c == '\n' ? ' ' : c;
  return reason;
}

int complain(ExitCode code, const std::string& text) {
  std::fputs(fmt::format("kelvanectl: {}\n", printable(screenOf(STDERR_FILENO), text)).c_str(), stderr);
  return code;
}

int parseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app("Shows who holds space that can be freed, and frees it", "kelvanectl");
  describe(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return complain(exit_usage, reasonOf(app, error, argc, argv) + "; see `kelvanectl --help`");
  }
  return options.command(options, screenOf(STDOUT_FILENO));
}

}  // namespace

const std::vector<ExitCodeText>& exitCodeTexts() {
  static const std::vector<ExitCodeText> texts = {
      {exit_met, "Done; for a purge, all that was asked for was freed"},
      {exit_short, "Less was freed than asked, a checked file has faults, or a key has no value"},
      {exit_usage, "Wrong usage: an option, an amount or a volume that is none"},
      {exit_refused, "This user has no right to it"},
      {exit_no_daemon, "No daemon is there"},
      {exit_no_answer, "The daemon went away before it answered, or does not answer"},
      {exit_failed, "Something else failed, such as reading a file"},
      {exit_cancelled, "Cancelled by Ctrl-C or SIGTERM, or the terminal was closed"},
      {128 + SIGPIPE,
       "Nobody reads standard output any more (as a shell counts it: the program ends by SIGPIPE)"},
      {128 + SIGTERM,
       "Ended by SIGTERM where there was nothing to cancel or restore, such as watch without a "
       "terminal (as a shell counts it: the program ends by that signal)"},
  };
  return texts;
}

void describe(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.add_flag("--json", options.json, "Print JSON instead of a screen");
  app.add_option("--daemon", options.daemon,
                 "The daemon's socket; default: kelvane.sock in $RUNTIME_DIRECTORY, or in /run/kelvane")
      ->type_name("SOCKET");
  app.set_version_flag("--version", "kelvanectl " KELVANE_VERSION);
  addCommand(app, options, "status", "Show whether the daemon is there, and how full the volumes are",
             statusCommand);
  CLI::App* const purgeable =
      addCommand(app, options, "purgeable", "Show what each service could free", purgeableCommand);
  addVolume(*purgeable, options)->description("A volume, or any path inside one; default: all volumes");
  addUrgency(*purgeable, options);
  describePurge(app, options);
  describeWatch(app, options);
  addCommand(app, options, "services",
             "Show the declared services, whether they can be reached and whether they are entitled",
             servicesCommand);
  addCommand(app, options, "check", "Look for faults in descriptor and grant files", checkCommand)
      ->add_option("files", options.files, "Property lists")
      ->required()
      ->type_name("FILE");
  describeState(app, options);
  addCommand(app, options, "stats", "Show what the daemon has counted since its start", statsCommand);
  describeLaunch(app, options);
  describeCachesCommands(app, options);
  app.footer(footer());
}

void print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
    throw Problem(exit_failed, fmt::format("standard output: {}", std::strerror(errno)));
}

int runProgram(int argc, char** argv) noexcept {
  try {
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGPIPE, SIG_DFL);  // whoever started this may have ignored it
    return parseAndRun(argc, argv);
  } catch (const Problem& problem) {
    return complain(problem.code(), problem.what());
  } catch (const std::exception& error) {
    return complain(exit_failed, error.what());
  }
}

}  // namespace kelvane::tools
