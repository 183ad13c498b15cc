// Asks the daemon for bytes on a volume, and shows who gave what in which pass.

#include <algorithm>

#include "examples/command_line.h"
#include "kelvane/client.h"
#include "kelvane/purge_report.h"

namespace kelvane::examples {
namespace {

using client::PurgePass;
using client::PurgeReport;

struct Settings {
  std::string volume;
  std::uint64_t amount = 0;
  int urgency = 3;
  std::uint64_t pass_seconds = 0;
  client::ClientOptions client;
};

void describe(CLI::App& app, Settings& settings) {
  app.add_option("volume", settings.volume, "Where the volume is mounted")->required();
  app.add_option("amount", settings.amount, "How much to free, such as 20MiB")
      ->required()
      ->transform(sizeWithUnit());
  app.add_option("--urgency", settings.urgency, "How far to go, 1 to 4")
      ->capture_default_str()
      ->check(CLI::Range(1, 4));
  app.add_option("--pass-seconds", settings.pass_seconds,
                 "How long to wait in each pass; 0: 2, 4, 6, 8 seconds")
      ->check(CLI::Range(0, 300));
  app.add_option("--daemon", settings.client.daemon_socket,
                 "The daemon's socket; default: kelvane.sock in $RUNTIME_DIRECTORY");
  app.footer("Exit codes: 0 freed, 1 less freed than asked, 2 not served, above 100 wrong usage.");
}

std::size_t widestName(const PurgeReport& report) {
  std::size_t widest = std::string_view("Service").size();
  for (const PurgePass& pass : report.passes) {
    for (const auto& [service, bytes] : pass.freed) widest = std::max(widest, service.size());
    for (const auto& service : pass.unanswered) widest = std::max(widest, service.size());
  }
  return widest;
}

/// One line for each service of the pass; the pass itself stands before the first.
void printPass(const PurgePass& pass, std::uint64_t missing, std::size_t width) {
  std::string head = fmt::format("{:>4} {:>13}", pass.urgency, inUnits(missing));
  const auto row = [&](std::string_view service, std::string_view gave) {
    fmt::print("{}  {:<{}}  {:>12}\n", head, service, width, gave);
    head = std::string(head.size(), ' ');
  };
  for (const auto& [service, bytes] : pass.freed) row(service, inUnits(bytes));
  for (const auto& service : pass.unanswered)
    row(service, fmt::format("none in {} s", pass.timeout_seconds.value_or(0)));
  if (pass.freed.empty() && pass.unanswered.empty()) row("(nobody was asked)", "");
}

void printReport(const PurgeReport& report, const Settings& settings) {
  const std::size_t width = widestName(report);
  fmt::print("{:>4} {:>13}  {:<{}}  {:>12}\n", "Pass", "Missing", "Service", width, "Last gave");
  std::uint64_t freed = 0;
  for (const PurgePass& pass : report.passes) {
    printPass(pass, settings.amount - std::min(freed, settings.amount), width);
    freed = pass.freed_before_end.value_or(freed);
  }
  fmt::print("\n{:<22}{:>14}\n{:<22}{:>14}\n", "Asked", inUnits(settings.amount), "Freed, as reported",
             inUnits(report.freed));
  fmt::print("{:<22}{:>14}\n{:<22}{:>14}\n", "Free space before", inUnits(report.free_before),
             "Free space after", inUnits(report.free_after));
  fmt::print("{:<22}{:>14}\n", "Took", fmt::format("{:.1f} ms", report.seconds * 1000));
}

int ask(const Settings& settings) {
  client::Client daemon(settings.client);
  const auto answer = daemon.purge(
      client::purgeRequest(settings.volume, settings.amount, settings.urgency, settings.pass_seconds));
  if (!answer) {
    fmt::print(stderr, "{}\n", answer.error().reason);
    return exit_failed;
  }
  const PurgeReport report = client::readPurgeReport(*answer);
  printReport(report, settings);
  if (report.freed >= settings.amount) return exit_done;
  fmt::print("{:<22}{:>14}\n", "Short by", inUnits(settings.amount - report.freed));
  return exit_short;
}

}  // namespace
}  // namespace kelvane::examples

int main(int argc, char** argv) {
  using namespace kelvane::examples;
  return runProgram([&] {
    Settings settings;
    CLI::App app("Asks for space on a volume", "ask_for_space");
    describe(app, settings);
    CLI11_PARSE(app, argc, argv);
    return ask(settings);
  });
}
