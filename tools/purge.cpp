#include "tools/purge.h"

#include <fmt/format.h>
#include <algorithm>

#include "kelvane/value.h"
#include "tools/amount.h"

namespace kelvane::tools {
namespace {

using client::PurgePass;
using client::PurgeReport;

constexpr std::size_t narrow = 60;
constexpr std::size_t amount_width = 10;
constexpr std::size_t label_width = 9;

double part(double amount, std::uint64_t whole) {
  return whole == 0 ? 1 : amount / static_cast<double>(whole);
}

std::size_t nameWidth(const PurgeReport& report, const Screen& screen) {
  std::size_t widest = 0;
  for (const PurgePass& pass : report.passes) {
    for (const auto& [service, bytes] : pass.freed)
      widest = std::max(widest, columns(printable(screen, service)));
    for (const auto& service : pass.unanswered)
      widest = std::max(widest, columns(printable(screen, service)));
  }
  const std::size_t room = screen.width < narrow ? screen.width - amount_width - 4 : screen.width * 2 / 5;
  return std::min(widest, room);
}

/// Missing when the pass began, and freed in it.
std::string passHead(const PurgePass& pass, std::uint64_t missing, std::uint64_t freed,
                     const Screen& screen) {
  if (missing == 0) return fmt::format("Pass {}: nothing was missing any more\n", pass.urgency);
  return fmt::format("Pass {}: {} missing,{}{} freed{}\n", pass.urgency, inUnits(missing),
                     screen.width < narrow ? "\n        " : " ", inUnits(freed),
                     pass.freed.empty() && pass.unanswered.empty() ? "" : "; last answers:");
}

std::string passScreen(const PurgePass& pass, std::uint64_t missing, std::uint64_t freed,
                       std::size_t name_width, const Screen& screen) {
  std::string text = passHead(pass, missing, freed, screen);
  const auto row = [&](const std::string& service, const std::string& gave, const std::string& rest) {
    text += "  " + fitted(screen, printable(screen, service), name_width) + "  " +
            rightAligned(gave, amount_width) + rest + "\n";
  };
  for (const auto& [service, bytes] : pass.freed) {
    const Bar bar{part(static_cast<double>(bytes), missing), {}, Colour::green};
    row(service, inUnits(bytes),
        screen.width < narrow ? "" : "  " + drawn(screen, bar, screen.width - name_width - amount_width - 6));
  }
  for (const auto& service : pass.unanswered) {
    row(service, "no answer",
        screen.width < narrow ? "" : fmt::format("  in {} s", pass.timeout_seconds.value_or(0)));
  }
  return text;
}

std::string passesScreen(const Purged& purged, const Screen& screen) {
  const std::size_t name_width = nameWidth(purged.report, screen);
  std::string text;
  std::uint64_t freed = 0;
  for (const PurgePass& pass : purged.report.passes) {
    const std::uint64_t missing = purged.asked - std::min(freed, purged.asked);
    const std::uint64_t freed_then = std::max(freed, pass.freed_before_end.value_or(freed));
    text += passScreen(pass, missing, freed_then - freed, name_width, screen);
    freed = freed_then;
    if (missing == 0) break;  // nor was anything in the passes after it
  }
  return text;
}

std::string sumLine(const char* label, std::int64_t bytes, const Purged& purged, const Screen& screen) {
  const Bar bar{
      part(static_cast<double>(std::max<std::int64_t>(bytes, 0)), purged.asked),
      {},
      bytes >= 0 && static_cast<std::uint64_t>(bytes) >= purged.asked ? Colour::green : Colour::yellow};
  return fmt::format("{:<{}} {}  {}\n", label, label_width, rightAligned(inUnitsSigned(bytes), amount_width),
                     drawn(screen, bar, screen.width - label_width - amount_width - 3));
}

std::int64_t asSigned(std::uint64_t bytes) {
  return static_cast<std::int64_t>(std::min<std::uint64_t>(bytes, std::uint64_t{1} << 62U));
}

std::string verdict(const Purged& purged, const Screen& screen) {
  const std::uint64_t freed = purged.report.freed;
  if (freed >= purged.asked) return coloured(screen, Colour::green, "All that was asked for was freed.");
  const std::string missing = inUnits(purged.asked - freed);
  if (purged.cancelled) {
    return coloured(screen, Colour::yellow,
                    fmt::format("Cancelled; {} were freed until then.", inUnits(freed)));
  }
  return coloured(screen, Colour::yellow, fmt::format("{} less than asked were freed.", missing));
}

Value passValue(const PurgePass& pass) {
  Array services;
  for (const auto& [service, bytes] : pass.freed)
    services.append(Dictionary{{"service", service}, {"last_answer_bytes", bytes}});
  Array unanswered;
  for (const auto& service : pass.unanswered) unanswered.append(service);
  Dictionary entry{{"urgency", pass.urgency}, {"services", services}, {"unanswered", unanswered}};
  if (pass.timeout_seconds) entry.set("waited_seconds", *pass.timeout_seconds);
  if (pass.freed_before_end) entry.set("freed_until_then_bytes", *pass.freed_before_end);
  return entry;
}

}  // namespace

std::int64_t measured(const PurgeReport& report) {
  return asSigned(report.free_after) - asSigned(report.free_before);
}

std::string purgeScreen(const Purged& purged, const Screen& screen) {
  std::string text = coloured(screen, Colour::bold, printable(screen, purged.volume)) + "\n";
  text += passesScreen(purged, screen) + "\n";
  text += fmt::format("{:<{}} {}\n", "Asked", label_width, rightAligned(inUnits(purged.asked), amount_width));
  text += sumLine("Claimed", asSigned(purged.report.freed), purged, screen);
  text += sumLine("Measured", measured(purged.report), purged, screen);
  text += fmt::format("{:<{}} {}\n", "Took", label_width,
                      rightAligned(inTime(purged.report.seconds), amount_width));
  text += fmt::format("{:<{}} {}\n\n", "Free now", label_width,
                      rightAligned(inUnits(purged.report.free_after), amount_width));
  return text + verdict(purged, screen) + "\n";
}

Value purgeValue(const Purged& purged) {
  Array passes;
  for (const PurgePass& pass : purged.report.passes) passes.append(passValue(pass));
  return Dictionary{{"command", "purge"},
                    {"path", purged.volume},
                    {"asked_bytes", purged.asked},
                    {"claimed_bytes", purged.report.freed},
                    {"measured_bytes", measured(purged.report)},
                    {"free_before_bytes", purged.report.free_before},
                    {"free_after_bytes", purged.report.free_after},
                    {"seconds", purged.report.seconds},
                    {"met", purged.report.freed >= purged.asked},
                    {"cancelled", purged.cancelled},
                    {"passes", passes}};
}

std::string progressLine(const std::string& volume, std::int64_t gained, std::uint64_t asked, double seconds,
                         const Screen& screen) {
  const std::uint64_t freed = gained > 0 ? static_cast<std::uint64_t>(gained) : 0;
  const std::string figures = fmt::format(" {} of {}, {}", inUnits(freed), inUnits(asked), inTime(seconds));
  const std::size_t room = screen.width - 1;  // the last column would make the terminal go to the next line
  const std::size_t taken = columns(figures);
  if (taken >= room) return fitted(screen, figures, room);
  std::size_t name_width = std::min(columns(printable(screen, volume)), (room - taken) / 2);
  const std::string name = fitted(screen, printable(screen, volume), name_width);
  if (room - taken - name_width < 4) return fitted(screen, name + figures, room);
  return name + " " +
         drawn(screen, {part(static_cast<double>(freed), asked), {}, Colour::green},
               room - taken - name_width - 1) +
         figures;
}

}  // namespace kelvane::tools
