#pragma once

#include <functional>
#include <string>

#include "bench/support/report.h"

namespace CLI {
class App;
}

namespace kelvane::bench {

/// A benchmark's program.
struct Program {
  const char* name;
  const char* about;
  /// Adds the options of its own; all have --json.
  std::function<void(CLI::App&)> options;
  /// All of the measuring. What it throws is told, and ends the program with 1.
  std::function<Report()> measure;
  /// Whether all figures are printed at the end; else the measuring does that.
  bool prints = true;
};

/// --daemon: another program than the daemon beside this one. `daemon` has that one until then.
void addDaemonOption(CLI::App& app, std::string& daemon);

/// The whole run, from the command line to the exit status.
int runProgram(int argc, char** argv, const Program& program);

}  // namespace kelvane::bench
