#pragma once

// What kelvanectl can be told. The manual page and the completions are made from these same definitions.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/caches_options.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct Options {
  bool json = false;
  std::string daemon;  // socket; empty: the standard one
  std::string volume;  // or a path inside one
  std::uint64_t amount = 0;
  int urgency = 3;
  std::uint64_t pass_seconds = 0;
  double interval_seconds = 1;
  std::uint64_t count = 0;  // of looks; 0: no end
  std::vector<std::string> files;
  std::string key;
  std::string value;
  std::string name;
  CachesRequest caches;

  /// What was chosen; prints, and returns the exit code.
  std::function<int(const Options&, const Screen&)> command;
};

void describe(CLI::App& app, Options& options);

/// The exit codes, as the help and the manual list them.
struct ExitCodeText {
  int code;
  const char* text;
};
[[nodiscard]] const std::vector<ExitCodeText>& exitCodeTexts();

/// Runs the program. Nothing is thrown.
int runProgram(int argc, char** argv) noexcept;

}  // namespace kelvane::tools
