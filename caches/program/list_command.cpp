// `list`: each cache, how much could go at each urgency, and, when nothing can, why.

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <set>

#include "caches/program/commands.h"
#include "caches/program/wording.h"
#include "tools/amount.h"
#include "tools/json.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

constexpr std::size_t amount_width = 10;
constexpr std::size_t longest_name = 24;
constexpr std::size_t amounts_width = client::urgency_count * (amount_width + 2);
/// Below this width, a cache takes two rows.
constexpr unsigned narrow = 72;

struct Listed {
  const Definition* definition;
  HolderReport report;
  std::string reason;  // why nothing can go
};

std::vector<Listed> gather(const DefinitionStore& store, Workers& workers) {
  std::vector<Listed> all;
  for (const Definition& definition : store.definitions) {
    Listed& listed = all.emplace_back();
    listed.definition = &definition;
    if (definition.enabled) listed.report = workers.survey(definition.name, "", noLimits());
    listed.reason = zeroReason(definition, listed.report);
  }
  return all;
}

std::string volumesOf(const HolderReport& report) {
  std::set<std::string> volumes;
  for (const RootReport& root : report.roots) {
    if (!root.volume.empty()) volumes.insert(shown(root.volume));
  }
  return fmt::format("{}", fmt::join(volumes, ", "));
}

std::size_t nameWidth(const std::vector<Listed>& all, const std::vector<std::string>& masked) {
  std::size_t widest = 5;
  for (const Listed& listed : all) widest = std::max(widest, listed.definition->name.size());
  for (const std::string& name : masked) widest = std::max(widest, name.size());
  return std::min(widest, longest_name);
}

/// Four columns: after the name, or on a separate line when the screen is narrow.
std::string amountColumns(const tools::Screen& screen,
                          const std::function<std::string(int urgency)>& text_of) {
  const std::size_t width = screen.width < narrow ? screen.width / client::urgency_count : amount_width + 2;
  std::string text;
  for (int urgency = 1; urgency <= client::most_urgent; ++urgency)
    text += tools::rightAligned(text_of(urgency), width);
  return text;
}

std::string amountsOf(const tools::Screen& screen, const HolderReport& report) {
  return amountColumns(screen, [&](int urgency) { return tools::inUnits(report.atUrgency(urgency).bytes); });
}

std::string reasonRow(const tools::Screen& screen, const std::string& name, const std::string& reason,
                      std::size_t name_width) {
  const std::string shown_reason =
      tools::cut(screen, tools::printable(screen, reason), screen.width - name_width - 2);
  return tools::fitted(screen, name, name_width) + "  " +
         tools::coloured(screen, tools::Colour::dim, shown_reason) + "\n";
}

/// For a cache that gives nothing, the reason takes the place of the amounts.
std::string row(const tools::Screen& screen, const Listed& listed, std::size_t name_width) {
  if (!listed.reason.empty()) return reasonRow(screen, listed.definition->name, listed.reason, name_width);
  const std::string name = tools::fitted(screen, listed.definition->name, name_width);
  const std::size_t rest = screen.width - name_width - 2;
  const std::string amounts = amountsOf(screen, listed.report);
  const std::string volumes = tools::printable(screen, volumesOf(listed.report));
  if (screen.width < narrow) return name + "  " + tools::cut(screen, volumes, rest) + "\n" + amounts + "\n";
  return name + amounts + "  " + tools::cut(screen, volumes, rest - amounts_width) + "\n";
}

std::string heading(const tools::Screen& screen, std::size_t name_width) {
  const std::string amounts =
      amountColumns(screen, [](int urgency) { return fmt::format("urgency {}", urgency); });
  if (screen.width < narrow)
    return tools::fitted(screen, "Cache", name_width) + "  Volume\n" + amounts + "\n";
  return tools::fitted(screen, "Cache", name_width) + amounts + "  Volume\n";
}

/// "REASON: name, name, ...", in as many lines as needed.
std::string paragraph(const tools::Screen& screen, const std::string& reason,
                      const std::vector<std::string>& names) {
  std::string text = tools::printable(screen, reason) + ":";
  std::size_t column = tools::columns(text);
  for (const std::string& name : names) {
    const std::string word = name + (&name == &names.back() ? "" : ",");
    const bool fits = column + 1 + word.size() <= screen.width;
    text += (fits ? " " : "\n  ") + word;
    column = (fits ? column + 1 : 2) + word.size();
  }
  return text + "\n";
}

/// Caches that give something come first. A reason that several share is printed once.
std::string rows(const tools::Screen& screen, const std::vector<Listed>& all, std::size_t name_width) {
  constexpr std::size_t many = 4;
  std::string giving;
  std::string others;
  std::string shared;
  std::map<std::string, std::vector<std::string>> by_reason;
  for (const Listed& listed : all) by_reason[listed.reason].push_back(listed.definition->name);
  for (const Listed& listed : all) {
    if (listed.reason.empty()) {
      giving += row(screen, listed, name_width);
    } else if (by_reason[listed.reason].size() < many) {
      others += row(screen, listed, name_width);
    }
  }
  for (const auto& [reason, names] : by_reason) {
    if (!reason.empty() && names.size() >= many) shared += paragraph(screen, reason, names);
  }
  return giving + others + shared;
}

std::string listScreen(const std::vector<Listed>& all, const std::vector<std::string>& masked,
                       const tools::Screen& screen) {
  if (all.empty() && masked.empty()) return "No cache is defined.\n";
  const std::size_t name_width = nameWidth(all, masked);
  std::string text = tools::coloured(screen, tools::Colour::bold, heading(screen, name_width)) +
                     rows(screen, all, name_width);
  for (const std::string& name : masked)
    text += reasonRow(screen, name, fmt::format("masked: kelvanectl caches enable {}", name), name_width);
  const bool complete =
      std::all_of(all.begin(), all.end(), [](const Listed& l) { return l.report.complete; });
  return complete ? text : text + "Not everything could be counted; there may be more.\n";
}

Array urgenciesOf(const std::array<client::CacheFigure, client::urgency_count>& figures) {
  Array urgencies;
  for (std::size_t i = 0; i < figures.size(); ++i) {
    urgencies.append(
        Dictionary{{"urgency", i + 1}, {"bytes", figures[i].bytes}, {"items", figures[i].items}});
  }
  return urgencies;
}

Value rootValue(const Definition& definition, const RootReport& root) {
  Dictionary entry{{"path", shown(root.path)},
                   {"user", userName(root.user)},
                   {"complete", root.survey.complete},
                   {"urgencies", urgenciesOf(root.survey.at_urgency)}};
  if (!root.volume.empty()) entry.set("volume", shown(root.volume));
  if (const std::string reason = zeroReason(definition, root); !reason.empty()) entry.set("reason", reason);
  return entry;
}

Value listedValue(const Listed& listed) {
  const Definition& definition = *listed.definition;
  Array roots;
  for (const RootReport& root : listed.report.roots) roots.append(rootValue(definition, root));
  std::array<client::CacheFigure, client::urgency_count> figures{};
  for (std::size_t i = 0; i < figures.size(); ++i)
    figures[i] = listed.report.atUrgency(static_cast<int>(i) + 1);
  Dictionary entry{{"name", definition.name},
                   {"summary", definition.summary},
                   {"class", nameOf(definition.cache_class)},
                   {"kind", nameOf(definition.kind)},
                   {"owner", nameOf(definition.owner)},
                   {"enabled", definition.enabled},
                   {"shipped", definition.shipped},
                   {"needs_network", definition.needs_network},
                   {"file", shown(definition.file)},
                   {"complete", listed.report.complete},
                   {"urgencies", urgenciesOf(figures)},
                   {"roots", roots}};
  if (!listed.reason.empty()) entry.set("reason", listed.reason);
  return entry;
}

Value listValue(const std::vector<Listed>& all, const std::vector<std::string>& masked) {
  Array caches;
  for (const Listed& listed : all) caches.append(listedValue(listed));
  Array names;
  for (const std::string& name : masked) names.append(name);
  return Dictionary{{"command", "caches list"}, {"caches", caches}, {"masked", names}};
}

}  // namespace

int listCommand(const Console& console, const DefinitionStore& store, Workers& workers) {
  const std::vector<Listed> all = gather(store, workers);
  print(console.json ? tools::jsonText(listValue(all, store.masked))
                     : listScreen(all, store.masked, console.screen));
  return tools::exit_met;
}

}  // namespace kelvane::caches
