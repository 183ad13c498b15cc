#include "caches/program/purge_entry.h"

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "caches/program/wording.h"
#include "tools/amount.h"

namespace kelvane::caches {
namespace {

using client::CachePurge;
using client::CacheSurvey;

/// A root that could not be used, or in which nothing was old enough, was not purged.
bool wasPurged(const RootReport& root) {
  const CachePurge& purge = root.purge;
  return purge.items != 0 || purge.freed != 0 || purge.held != 0 || purge.failures != 0 ||
         (purge.end != CachePurge::End::nothingLeft && purge.end != CachePurge::End::amountFreed);
}

std::string ruleOf(const Definition& definition, int urgency) {
  const auto& age = definition.rules.ages[static_cast<std::size_t>(urgency - 1)];
  return age ? "files older than " + ageText(age->count()) : "nothing";
}

std::string endText(const CachePurge& purge) {
  switch (purge.end) {
    case CachePurge::End::amountFreed:
      return "the amount was freed";
    case CachePurge::End::nothingLeft:
      return "nothing older was left";
    case CachePurge::End::cancelled:
      return "it was cancelled";
    case CachePurge::End::tooLate:
      return "its time had run out";
    case CachePurge::End::failed:
      return fmt::format("it failed: {}", purge.error != 0 ? std::strerror(purge.error) : "unknown error");
  }
  return "unknown";
}

std::string messageOf(const Definition& definition, const PurgeRequest& request, const RootReport& root,
                      std::int64_t cut_age) {
  std::string text = fmt::format(
      "{}: freed {} in {} files of {} at urgency {} ({} asked of {}); urgency {} allows {}; this purge took "
      "files older than {}, and ended because {}",
      definition.name, tools::inUnits(root.purge.freed), root.purge.files, shown(root.path), request.urgency,
      tools::inUnits(request.amount), definition.name, request.urgency, ruleOf(definition, request.urgency),
      ageText(cut_age), endText(root.purge));
  if (root.purge.held != 0)
    text += fmt::format("; {} more are free once programs close the files", tools::inUnits(root.purge.held));
  if (root.purge.failures != 0) {
    text +=
        fmt::format("; {} could not be deleted: {}", root.purge.failures, std::strerror(root.purge.error));
  }
  return text;
}

JournalEntry journalEntry(const Definition& definition, const PurgeRequest& request, const RootReport& root,
                          std::int64_t cut_age, const std::string& message) {
  constexpr int informational = 6;
  JournalEntry entry;
  entry.add("MESSAGE", message);
  entry.add("MESSAGE_ID", purge_message_id);
  entry.add("PRIORITY", std::to_string(informational));
  entry.add("SYSLOG_IDENTIFIER", "kelvane-caches");
  entry.add("KELVANE_HOLDER", definition.name);
  entry.add("KELVANE_ROOT", root.path);
  entry.add("KELVANE_VOLUME", root.volume);
  entry.add("KELVANE_USER", userName(root.user));
  entry.add("KELVANE_URGENCY", std::to_string(request.urgency));
  entry.add("KELVANE_ASKED", std::to_string(request.amount));
  entry.add("KELVANE_BYTES", std::to_string(root.purge.freed));
  entry.add("KELVANE_FILES", std::to_string(root.purge.files));
  entry.add("KELVANE_AGE", std::to_string(cut_age));
  entry.add("KELVANE_END", nameOf(root.purge.end));
  return entry;
}

}  // namespace

std::int64_t cutAge(const HolderReport& report, const PurgeRequest& request) {
  std::optional<CacheSurvey> all;
  for (const RootReport& root : report.roots) {
    if (!root.reason.empty() && !wasPurged(root)) continue;
    if (all) {
      *all += root.survey;
    } else {
      all = root.survey;
    }
  }
  if (!all) return 0;
  return std::max<std::int64_t>(all->taken_at - all->cut(request.urgency, request.amount).newest, 0);
}

const char* nameOf(CachePurge::End end) {
  constexpr std::array<const char*, 5> names = {"amount-freed", "nothing-left", "cancelled", "too-late",
                                                "failed"};
  return names.at(static_cast<std::size_t>(end));
}

std::vector<PurgeEntry> purgeEntries(const Definition& definition, const PurgeRequest& request,
                                     const HolderReport& report) {
  std::vector<PurgeEntry> entries;
  const std::int64_t cut_age = cutAge(report, request);
  for (const RootReport& root : report.roots) {
    if (!wasPurged(root)) continue;
    std::string message = messageOf(definition, request, root, cut_age);
    JournalEntry journal = journalEntry(definition, request, root, cut_age, message);
    entries.push_back({std::move(message), std::move(journal)});
  }
  return entries;
}

}  // namespace kelvane::caches
