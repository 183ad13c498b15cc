// Writes the manual page and the completions from the definitions of the options, so that they cannot differ.
//
//   kelvanectl_manual man|bash|zsh|fish

#include <fmt/format.h>
#include <cstdio>
#include <exception>
#include <string_view>

#include "tools/options.h"

namespace kelvane::tools {
namespace {

using Commands = std::vector<std::pair<std::string, const CLI::App*>>;  // "state get" and the like

void collect(const CLI::App& app, const std::string& prefix, Commands& commands) {
  for (const CLI::App* const command : app.get_subcommands({})) {
    const std::string name = prefix + command->get_name();
    commands.emplace_back(name, command);
    collect(*command, name + " ", commands);
  }
}

/// Those of the program itself hold for each command, --help among them.
std::vector<const CLI::Option*> ownOptions(const CLI::App& app) {
  const bool is_command = app.get_parent() != nullptr;
  return app.get_options(
      [&](const CLI::Option* option) { return !is_command || option != app.get_help_ptr(); });
}

/// Without the limits that the library appends to it.
std::string typeOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

std::vector<std::string> flagsOf(const CLI::App& app) {
  std::vector<std::string> flags;
  for (const CLI::Option* const option : ownOptions(app)) {
    for (const std::string& name : option->get_lnames()) flags.push_back("--" + name);
    for (const std::string& name : option->get_snames()) flags.push_back("-" + name);
  }
  return flags;
}

std::string joined(const std::vector<std::string>& words) { return fmt::format("{}", fmt::join(words, " ")); }

std::vector<std::string> namesOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

// --- the manual page ---

std::string roff(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '-' || c == '\\') {
      result += c == '-' ? "\\-" : "\\e";
    } else {
      result += c;
    }
  }
  return result.starts_with('.') || result.starts_with('\'') ? "\\&" + result : result;
}

std::string optionsOf(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* const option : ownOptions(app)) {
    const std::string name = option->get_positional() ? typeOf(*option) : option->get_name(true, true);
    const bool has_value = !option->get_positional() && option->get_type_size() != 0;
    text += fmt::format(".TP\n.B {}{}\n{}.\n", roff(name), has_value ? " " + roff(typeOf(*option)) : "",
                        roff(option->get_description()));
  }
  return text;
}

std::string synopsisOf(const std::string& name, const CLI::App& app) {
  std::string text = fmt::format(".B kelvanectl {}\n", roff(name));
  for (const CLI::Option* const option :
       app.get_options([](const CLI::Option* o) { return o->get_positional(); })) {
    const bool required = option->get_required();
    text += fmt::format("{}\\fI{}\\fR{}\n", required ? "" : "[", roff(option->get_type_name()),
                        required ? "" : "]");
  }
  return text;
}

/// What a command's description has no room for; empty for most.
std::string_view detailsOf(std::string_view command) {
  if (command == "services") {
    return "A descriptor in /OrvelInternal/Library/Kelvane overrides one with the same ID in "
           "/System/Library/Kelvane. A service is reachable when somebody listens on its "
           "socket.\n.PP\n"
           "The daemon calls a declared service through its socket, and needs no grant for that. "
           "\\(lqEntitled\\(rq says whether the service may also connect to the daemon and check in by "
           "itself: it judges the processes that this user can see: yes, when the grant files give "
           "CLIENT_ENTITLEMENT and SERVICE_ENTITLEMENT to each process that holds its listening socket "
           "now, as its effective user, its groups and its label are; no, when they give them to none "
           "of these. The service manager, process 1, does not count. It is unknown when the service "
           "does not run, so that nobody else holds the socket; when this user may not see who does; "
           "when those who do differ; and when a grant file cannot be read, or is not root\\(aqs, since "
           "the daemon believes files of its own user. The daemon reads the grant files at its start, "
           "and this command reads them as they are now.\n";
  }
  if (command == "watch") {
    return "On a terminal the view is drawn anew after each interval and when the window changes its "
           "size. q, Ctrl\\-C and closing the terminal end it. Elsewhere each look is printed as a "
           "block, with \\-\\-json as one object on a line. Changes are those since the look before. A "
           "daemon that is not there is shown as such and looked for again; one that does not answer "
           "within the interval, or at least 1 and at most 5 seconds, is asked again after 10. Neither "
           "changes the exit status. What purges freed is what services claimed, as the daemon writes "
           "it to metrics.prom within a second after a purge; until a daemon that was started anew has "
           "counted something, the figures are those of the one before.\n";
  }
  return {};
}

std::string manual(const CLI::App& app, const Commands& commands) {
  std::string text = fmt::format(
      ".TH KELVANECTL 1 \"\" \"kelvane {}\" \"Kelvane\"\n.SH NAME\n"
      "kelvanectl \\- show who holds space that can be freed, and free it\n.SH SYNOPSIS\n",
      KELVANE_VERSION);
  for (const auto& [name, command] : commands) {
    if (command->get_subcommands({}).empty()) text += synopsisOf(name, *command) + ".br\n";
  }
  text +=
      ".SH DESCRIPTION\n.B kelvanectl\nasks kelvaned, the daemon that has programs give space back. Colours "
      "and the "
      "live line of a purge are for terminals only; see NO_COLOR below.\n.SH OPTIONS\n" +
      optionsOf(app);
  text += ".SH COMMANDS\n";
  for (const auto& [name, command] : commands) {
    if (!command->get_subcommands({}).empty()) continue;
    text += fmt::format(".SS {}\n{}.\n{}", roff(name), roff(command->get_description()), optionsOf(*command));
    if (const std::string_view details = detailsOf(name); !details.empty())
      text += ".PP\n" + std::string(details);
  }
  text += ".SH \"EXIT STATUS\"\n";
  for (const ExitCodeText& code : exitCodeTexts())
    text += fmt::format(".TP\n.B {}\n{}.\n", code.code, roff(code.text));
  return text +
         ".SH ENVIRONMENT\n.TP\n.B RUNTIME_DIRECTORY\nWhere the daemon's sockets are; by default "
         "/run/kelvane.\n"
         ".TP\n.B NO_COLOR\nNo colours when it is set and not empty.\n.TP\n.B COLUMNS\nThe width of the "
         "screen, 40 to 200, whatever the terminal says.\n.TP\n.B KELVANE_LOW_SPACE, KELVANE_VERY_LOW_SPACE\n"
         "When volumes count as low, where the daemon's own settings cannot be read.\n";
}

// --- completions ---

/// The command that the words so far name goes into $command.
std::string commandCases(const Commands& commands) {
  std::string text = "    case \"$command${command:+ }$word\" in\n";
  for (const auto& [name, command] : commands)
    text += fmt::format("      \"{0}\") command=\"{0}\" ;;\n", name);
  return text + "    esac\n  done\n";
}

/// What may follow each command: `before`, its words, and `files` where a path may.
std::string wordCases(const CLI::App& app, const Commands& commands, const char* before, const char* files) {
  std::string text = fmt::format("  case $command in\n    \"\") {}({} {}) ;;\n", before, joined(namesOf(app)),
                                 joined(flagsOf(app)));
  for (const auto& [name, command] : commands) {
    const std::vector<std::string> words[] = {namesOf(*command), flagsOf(*command), flagsOf(app)};
    text += fmt::format("    \"{}\") {}({} {} {}){} ;;\n", name, before, joined(words[0]), joined(words[1]),
                        joined(words[2]), words[0].empty() ? files : "");
  }
  return text + "  esac\n";
}

std::string bash(const CLI::App& app, const Commands& commands) {
  return "# bash completion for kelvanectl\n_kelvanectl() {\n  local command= word words=() files=\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n" +
         commandCases(commands) + wordCases(app, commands, "words=", " files=yes") +
         "  COMPREPLY=($(compgen -W \"${words[*]}\" -- \"$2\"))\n"
         "  [ -z \"$files\" ] || COMPREPLY+=($(compgen -f -- \"$2\"))\n}\ncomplete -F _kelvanectl "
         "kelvanectl\n";
}

std::string zsh(const CLI::App& app, const Commands& commands) {
  return "#compdef kelvanectl\n  local command= word files= matches=()\n"
         "  for word in ${words[2,CURRENT-1]}; do\n" +
         commandCases(commands) + wordCases(app, commands, "matches=", " files=yes") +
         "  compadd -- $matches\n  [[ -z $files ]] || _files\n";
}

std::string fish(const CLI::App& app, const Commands& commands) {
  std::string text = "# fish completion for kelvanectl\n";
  const auto line = [&](const std::string& condition, const std::string& words,
                        const std::string& description) {
    text += fmt::format("complete -c kelvanectl -n '{}' {} -d '{}'\n", condition, words, description);
  };
  const auto quoted = [](std::string description) {
    for (std::size_t at = 0; (at = description.find('\'', at)) != std::string::npos; at += 2)
      description.insert(at, "\\");
    return description;
  };
  const auto options = [&](const std::string& condition, const CLI::App& of) {
    for (const CLI::Option* const option : ownOptions(of)) {
      if (option->get_positional()) continue;
      line(condition, "-l " + option->get_lnames().front(), quoted(option->get_description()));
    }
  };
  options("true", app);
  for (const auto& [name, command] : commands) {
    const std::size_t space = name.rfind(' ');
    const std::string before = space == std::string::npos
                                   ? "__fish_use_subcommand"
                                   : "__fish_seen_subcommand_from " + name.substr(0, space);
    line(before, "-f -a " + command->get_name(), quoted(command->get_description()));
    options("__fish_seen_subcommand_from " + command->get_name(), *command);
  }
  return text;
}

}  // namespace
}  // namespace kelvane::tools

int main(int argc, char** argv) {
  using namespace kelvane::tools;
  try {
    Options options;
    CLI::App app("", "kelvanectl");
    describe(app, options);
    Commands commands;
    collect(app, "", commands);
    const std::string_view what = argc == 2 ? argv[1] : "";
    std::string text;
    if (what == "man") text = manual(app, commands);
    if (what == "bash") text = bash(app, commands);
    if (what == "zsh") text = zsh(app, commands);
    if (what == "fish") text = fish(app, commands);
    return !text.empty() && std::fputs(text.c_str(), stdout) >= 0 ? 0 : 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "kelvanectl_manual: %s\n", failure.what());
    return 1;
  }
}
