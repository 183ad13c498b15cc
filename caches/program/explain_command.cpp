// `explain`: what a purge would delete now. The workers run the same code as a purge, up to the deletion.

#include <fmt/format.h>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <limits>
#include <mutex>

#include "caches/program/commands.h"
#include "caches/program/purge_entry.h"
#include "caches/program/wording.h"
#include "tools/amount.h"
#include "tools/json.h"
#include "tools/problem.h"
#include "tools/volume_of.h"

namespace kelvane::caches {
namespace {

/// Prints items as they are found, so that a million of them need no memory.
class ItemPrinter {
 public:
  explicit ItemPrinter(const Console& console) : console_(console) {}

  /// Any thread. False when standard output cannot be written.
  bool operator()(const RootReport& root, const client::CacheItem& item) {
    const std::string text = console_.json ? json(root, item) : line(root, item);
    const std::lock_guard lock(mutex_);
    const bool comma = console_.json && printed_++ != 0;
    return (!comma || std::fputs(",\n", stdout) >= 0) && std::fputs(text.c_str(), stdout) >= 0;
  }

 private:
  static std::string pathOf(const RootReport& root, const client::CacheItem& item) {
    return shown(item.path.empty() ? root.path : root.path + "/" + item.path);
  }
  [[nodiscard]] std::string line(const RootReport& root, const client::CacheItem& item) const {
    const std::string age = ageText(std::max<std::int64_t>(now_ - item.newest, 0));
    return fmt::format("{:>10}  {:>10}  {}\n", tools::inUnits(item.bytes), age,
                       tools::printable(console_.screen, pathOf(root, item)));
  }
  static std::string json(const RootReport& root, const client::CacheItem& item) {
    std::string text = tools::jsonLine(
        Dictionary{{"path", pathOf(root, item)}, {"bytes", item.bytes}, {"newest", item.newest}});
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return "    " + text;
  }

  const Console& console_;
  const std::int64_t now_ = std::time(nullptr);
  std::mutex mutex_;         // guards standard output and printed_
  std::size_t printed_ = 0;  // number of items
};

struct Explained {
  const Definition& definition;
  PurgeRequest request;
  HolderReport report;
  std::int64_t cut_age = 0;  // seconds; nothing younger would go
};

Explained explain(const Console& console, const Definition& definition, Workers& workers,
                  ItemPrinter& printer) {
  PurgeRequest request;
  if (!console.request.volume.empty()) request.volume = tools::volumeOf(console.request.volume);
  request.urgency = console.request.urgency;
  request.amount =
      console.request.amount != 0 ? console.request.amount : std::numeric_limits<std::uint64_t>::max();
  const auto item = [&](const RootReport& root, const client::CacheItem& found) {
    return !console.request.files || printer(root, found);
  };
  Explained explained{definition, request, {}, 0};
  if (definition.enabled) {
    explained.report =
        workers.list(definition.name, request.volume, request.urgency, request.amount, noLimits(), item);
  }
  explained.cut_age = cutAge(explained.report, request);
  return explained;
}

client::CacheFigure totalOf(const HolderReport& report) {
  client::CacheFigure total;
  for (const RootReport& root : report.roots) {
    if (!root.reason.empty()) continue;
    total.bytes += root.purge.freed;
    total.items += root.purge.items;
  }
  return total;
}

std::string staysOf(const client::CachePurge& purge) {
  std::string text;
  for (std::size_t i = 0; i < purge.stays.size(); ++i) {
    const client::CacheFigure& stays = purge.stays[i];
    if (stays.items == 0 && stays.bytes == 0) continue;
    text += fmt::format("  stays: {} in {}: {}\n", tools::inUnits(stays.bytes), stays.items,
                        client::describe(static_cast<client::CacheStay>(i)));
  }
  return text;
}

std::string rootScreen(const tools::Screen& screen, const Explained& explained, const RootReport& root) {
  const std::string path =
      tools::coloured(screen, tools::Colour::bold, tools::printable(screen, shown(root.path)));
  if (!root.reason.empty())
    return path + "\n  nothing would go: " + tools::printable(screen, root.reason) + "\n";
  const char* const unit = explained.definition.kind == Kind::files ? "files" : "units";
  const std::string volume = root.volume.empty() ? "none" : shown(root.volume);
  std::string text =
      path + tools::printable(screen, fmt::format("  (user {}, volume {})", userName(root.user), volume)) +
      "\n";
  if (root.purge.items == 0) {
    const std::string reason = zeroReason(explained.definition, root);
    text += "  nothing would go: " + (reason.empty() ? "nothing is old enough" : reason) + "\n";
  } else {
    text += fmt::format("  would go: {} in {} {}, nothing younger than {}\n",
                        tools::inUnits(root.purge.freed), root.purge.items, unit, ageText(explained.cut_age));
  }
  return text + staysOf(root.purge);
}

std::string explainScreen(const tools::Screen& screen, const Explained& explained) {
  const Definition& definition = explained.definition;
  std::string text = tools::printable(screen, definition.name + ": " + definition.summary) + "\n";
  for (const RootReport& root : explained.report.roots) text += rootScreen(screen, explained, root);
  const client::CacheFigure total = totalOf(explained.report);
  if (total.items == 0) {
    const std::string reason = zeroReason(definition, explained.report);
    text += fmt::format("Nothing would go at urgency {}{}.\n", explained.request.urgency,
                        reason.empty() ? "" : ": " + tools::printable(screen, reason));
  } else {
    text +=
        fmt::format("{} would go at urgency {}.\n", tools::inUnits(total.bytes), explained.request.urgency);
  }
  return explained.report.complete ? text : text + "Not everything could be counted; there may be more.\n";
}

Value rootValue(const Explained& explained, const RootReport& root) {
  Dictionary entry{{"path", shown(root.path)}, {"user", userName(root.user)}};
  if (!root.volume.empty()) entry.set("volume", shown(root.volume));
  if (!root.reason.empty()) {
    entry.set("reason", root.reason);
    return entry;
  }
  entry.set("bytes", root.purge.freed);
  entry.set("items", root.purge.items);
  if (root.purge.items == 0) {
    const std::string reason = zeroReason(explained.definition, root);
    entry.set("reason", reason.empty() ? "nothing is old enough" : reason);
  }
  Array stays;
  for (std::size_t i = 0; i < root.purge.stays.size(); ++i) {
    const client::CacheFigure& figure = root.purge.stays[i];
    if (figure.items == 0 && figure.bytes == 0) continue;
    stays.append(Dictionary{{"reason", client::describe(static_cast<client::CacheStay>(i))},
                            {"bytes", figure.bytes},
                            {"items", figure.items}});
  }
  entry.set("stays", stays);
  return entry;
}

Dictionary explainValue(const Console& console, const Explained& explained) {
  Array roots;
  for (const RootReport& root : explained.report.roots) roots.append(rootValue(explained, root));
  const client::CacheFigure total = totalOf(explained.report);
  Dictionary value{{"command", "caches explain"},
                   {"name", explained.definition.name},
                   {"urgency", explained.request.urgency},
                   {"bytes", total.bytes},
                   {"count", total.items},
                   {"cut_age_seconds", explained.cut_age},
                   {"complete", explained.report.complete},
                   {"roots", roots}};
  if (console.request.amount != 0) value.set("amount", console.request.amount);
  const std::string reason = zeroReason(explained.definition, explained.report);
  if (total.items == 0 && !reason.empty()) value.set("reason", reason);
  return value;
}

/// The rest of an object whose first member, the items, has been printed already.
std::string restOf(const std::string& object) { return "\n  ],\n" + object.substr(object.find('\n') + 1); }

}  // namespace

int explainCommand(const Console& console, const DefinitionStore& store, Workers& workers) {
  const bool streams = console.json && console.request.files;
  if (streams) print("{\n  \"items\": [\n");
  ItemPrinter printer(console);
  const Explained explained =
      explain(console, definitionNamed(store, console.request.name), workers, printer);
  if (console.json) {
    const std::string object = tools::jsonText(explainValue(console, explained));
    print(streams ? restOf(object) : object);
  } else {
    print((console.request.files ? "\n" : "") + explainScreen(console.screen, explained));
  }
  return tools::exit_met;
}

}  // namespace kelvane::caches
