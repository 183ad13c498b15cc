#include "tools/caches_options.h"

#include <array>

#include "tools/amount.h"

namespace kelvane::tools {
namespace {

constexpr std::array<const char*, 5> command_names = {"list", "explain", "check", "enable", "disable"};

const char* nameOf(CachesCommand command) { return command_names.at(static_cast<std::size_t>(command)); }

void takeAmount(const std::string& text, CachesRequest& request) {
  const auto amount = parseAmount(text);
  if (const auto* const wrong = std::get_if<NoAmount>(&amount))
    throw CLI::ValidationError(wrong->reason, CLI::ExitCodes::ValidationError);
  request.amount = std::get<std::uint64_t>(amount);
}

void describeExplain(CLI::App& explain, CachesRequest& request) {
  explain
      .add_option("-u,--urgency", request.urgency,
                  "How far to go: 1 (only what nobody will miss) to 4 (all that can be made again)")
      ->capture_default_str()
      ->check(CLI::Range(1, 4))
      ->type_name("1-4");
  explain
      .add_option_function<std::string>(
          "--amount", [&request](const std::string& text) { takeAmount(text, request); },
          "Show what would go if this much were asked for, such as 500M; default: all that may go")
      ->type_name("SIZE");
  explain.add_option("--volume", request.volume, "A volume, or any path inside one; default: all volumes")
      ->type_name("PATH");
  explain.add_flag("--files", request.files, "Name each file or directory that would go");
}

}  // namespace

void describeCaches(CLI::App& app, CachesRequest& request) {
  const auto add = [&](CachesCommand command, const char* description) {
    CLI::App* const added = app.add_subcommand(nameOf(command), description);
    added->fallthrough();
    added->callback([&request, command] { request.command = command; });
    return added;
  };
  add(CachesCommand::list, "Show each cache, and what could go at each urgency or why nothing can");
  CLI::App* const explain =
      add(CachesCommand::explain, "Show exactly what would go from a cache now, and delete nothing");
  CLI::App* const check = add(CachesCommand::check, "Check definitions of caches for errors");
  CLI::App* const enable = add(CachesCommand::enable, "Switch a cache on");
  CLI::App* const disable = add(CachesCommand::disable, "Switch a cache off, so that nothing of it goes");
  for (CLI::App* const command : {explain, enable, disable}) {
    command->add_option("name", request.name, "The cache's name, as list shows it")
        ->required()
        ->type_name("NAME");
  }
  describeExplain(*explain, request);
  check->add_option("files", request.paths, "TOML files")->required()->type_name("FILE");
}

std::vector<std::string> wordsOf(const CachesRequest& request) {
  std::vector<std::string> words = {nameOf(request.command)};
  if (request.command == CachesCommand::explain) {
    words.push_back("--urgency=" + std::to_string(request.urgency));
    if (request.amount != 0) words.push_back("--amount=" + std::to_string(request.amount));
    if (!request.volume.empty()) words.push_back("--volume=" + request.volume);
    if (request.files) words.emplace_back("--files");
  }
  words.emplace_back("--");
  if (!request.name.empty()) words.push_back(request.name);
  words.insert(words.end(), request.paths.begin(), request.paths.end());
  return words;
}

}  // namespace kelvane::tools
