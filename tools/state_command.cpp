// The daemon's key-value store, and what can be started in it.

#include <fmt/format.h>

#include "kelvane/launch.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"

namespace kelvane::tools {
namespace {

constexpr std::chrono::seconds patience(30);

void storeState(const Options& options, const Value& value) {
  client::Client daemon({socketOf(options)});
  const auto done = ask<client::Done>(
      patience, [&](auto completion) { daemon.setState(value, options.key, std::move(completion)); });
  if (!done) throw problemOf(done.error(), socketOf(options));
}

Value jsonArgument(const std::string& text) {
  const ReadJson read = readJson(text);
  if (!read.valid)
    throw Problem(exit_usage, fmt::format("\"{}\" is no JSON; a text is quoted, as in '\"text\"'", text));
  return read.value;
}

int finish(const client::Result<client::Done>& done, const Options& options) {
  if (!done) throw problemOf(done.error(), launchSocketOf(options));
  return exit_met;
}

}  // namespace

int stateGetCommand(const Options& options, const Screen& /*screen*/) {
  client::Client daemon({socketOf(options)});
  const auto value =
      ask<Value>(patience, [&](auto completion) { daemon.getState(options.key, std::move(completion)); });
  if (!value) throw problemOf(value.error(), socketOf(options));
  print(jsonText(*value));
  return value->isNothing() ? exit_short : exit_met;
}

int stateSetCommand(const Options& options, const Screen& /*screen*/) {
  storeState(options, jsonArgument(options.value));
  return exit_met;
}

int stateDeleteCommand(const Options& options, const Screen& /*screen*/) {
  storeState(options, Value());
  return exit_met;
}

int activityRunCommand(const Options& options, const Screen& /*screen*/) {
  return finish(client::LaunchSocket(launchSocketOf(options)).runActivity(options.name), options);
}

int eventsPostCommand(const Options& options, const Screen& /*screen*/) {
  const Value event = options.value.empty() ? Value(Dictionary()) : jsonArgument(options.value);
  if (!event.isDictionary()) throw Problem(exit_usage, "an event is a JSON object, as in '{\"_Flags\": 4}'");
  return finish(client::LaunchSocket(launchSocketOf(options)).postEvent(options.name, *event.dictionary()),
                options);
}

}  // namespace kelvane::tools
