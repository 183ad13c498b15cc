#include "bench/support/program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

namespace kelvane::bench {
namespace {

int run(int argc, char** argv, const Program& program) {
  CLI::App app(program.about);
  std::string json;
  program.options(app);
  app.add_option("--json", json, "a file for the figures");
  CLI11_PARSE(app, argc, argv);
  const Report report = program.measure();
  if (program.prints) report.print();
  report.write(json);
  return 0;
}

}  // namespace

void addDaemonOption(CLI::App& app, std::string& daemon) {
  app.add_option("--daemon", daemon, "the daemon's program")->check(CLI::ExistingFile);
}

int runProgram(int argc, char** argv, const Program& program) {
  try {
    return run(argc, argv, program);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", program.name, failure.what());
    return 1;
  }
}

}  // namespace kelvane::bench
