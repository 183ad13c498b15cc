#include "kelvane/purge_report.h"

#include <charconv>
#include <string_view>

#include "common/keys.h"

namespace kelvane::client {
namespace {

constexpr int most_urgent = 4;

/// The number after `label` in a line of "label: number" items; nothing when there is none.
std::optional<std::uint64_t> numberAfter(std::string_view line, std::string_view label) {
  const std::size_t at = line.find(label);
  if (at == std::string_view::npos) return std::nullopt;
  line.remove_prefix(at + label.size());
  std::uint64_t number = 0;
  if (std::from_chars(line.data(), line.data() + line.size(), number).ec != std::errc()) return std::nullopt;
  return number;
}

std::map<std::string, std::uint64_t> amountsOf(const Value& reporting) {
  std::map<std::string, std::uint64_t> amounts;
  if (!reporting.isDictionary()) return amounts;
  for (const auto& [service, amount] : *reporting.dictionary())
    amounts[service] = amount.unsignedLongLongValue();
  return amounts;
}

PurgePass readPass(int urgency, const Dictionary& info) {
  const std::string number = std::to_string(urgency);
  PurgePass pass;
  pass.urgency = urgency;
  pass.freed = amountsOf(info[KELVANE_REPORTING_SERVICES]);
  if (const Array* const services = info[KELVANE_SERVICES_INFLIGHT].array()) {
    for (const Value& service : *services) {
      if (service.isString()) pass.unanswered.push_back(*service.string());
    }
  }
  const Value& seconds = info["KELVANE_URGENCY_" + number + "_TIMEOUT_SECONDS"];
  if (seconds.isNumber()) pass.timeout_seconds = seconds.unsignedLongLongValue();
  if (const std::string* const line = info["KELVANE_OPERATION_STATS_URGENCY_" + number].string())
    pass.freed_before_end = numberAfter(*line, "amountPurged: ");
  return pass;
}

}  // namespace

PurgeReport readPurgeReport(const Dictionary& answer) {
  PurgeReport report;
  report.freed = answer[KELVANE_AMOUNT].unsignedLongLongValue();
  report.reported = answer[KELVANE_AMOUNT_REPORTED].unsignedLongLongValue();
  report.free_before = answer[KELVANE_FREESPACE_BEGIN].unsignedLongLongValue();
  report.free_after = answer[KELVANE_FREESPACE_END].unsignedLongLongValue();
  report.seconds = answer[KELVANE_ELAPSED_TIME].doubleValue();
  report.cancelled = answer[KELVANE_OPERATION_CANCELLED].boolValue();
  for (int urgency = 1; urgency <= most_urgent; ++urgency) {
    const Value& info = answer["KELVANE_URGENCY_" + std::to_string(urgency) + "_OPERATION_INFO"];
    if (info.isDictionary()) report.passes.push_back(readPass(urgency, *info.dictionary()));
  }
  return report;
}

}  // namespace kelvane::client
