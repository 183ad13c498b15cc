// The two operations on the recent-info record: which figures it still holds, and a fresh answer into it.

#include <map>
#include <utility>

#include "common/keys.h"
#include "operations/purgeable_operation.h"
#include "platform/foundation/footprint.h"
#include "platform/host/time.h"
#include "support/log.h"
#include "support/volumes.h"

namespace kelvane {
namespace {

constexpr const char* cached_selector = "cachedInfo:";
constexpr const char* update_selector = "updateServiceStats:withInfo:";

// How far a volume's free space may move, in bytes, and how old a figure may be, in seconds.
constexpr std::uint64_t freespace_change = 5'242'880;
constexpr double figure_age = 120.0;
// A figure is a number. Whatever else a service answers is kept and named in the log, as long as it is small.
constexpr std::size_t largest_figure = 1024;

/// Null for what is no record; anybody may store anything under its key.
std::shared_ptr<KelvaneRecentInfo> recordOf(PersistentState& state) {
  const StateObject object = state.clientGetStateSync(KELVANE_RECENT_SERVICE_STATS);
  const auto* const record = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&object);
  return record != nullptr ? *record : nullptr;
}

Dictionary figuresOf(const KelvaneRecentInfo& record, const std::string& volume) {
  const auto found = record.volumes().find(volume);
  return found != record.volumes().end() ? found->second.amounts() : Dictionary();
}

/// Both iterate in the order of the identifiers.
Array missingFrom(const Dictionary& figures, const Services& services) {
  Array missing;
  auto figure = figures.begin();
  for (const auto& [identifier, service] : services) {
    while (figure != figures.end() && figure->first < identifier) ++figure;
    if (figure == figures.end() || figure->first != identifier) missing.append(identifier);
  }
  return missing;
}

/// What is free on volumes, each asked once.
class Freespaces {
 public:
  std::uint64_t of(const std::string& volume) {
    const auto known = freespaces_.find(volume);
    if (known != freespaces_.end()) return known->second;
    return freespaces_.emplace(volume, volumeFreespace(volume)).first->second;
  }

 private:
  std::map<std::string, std::uint64_t> freespaces_;
};

/// The volume's free space and timestamp go with every answer of any service on it.
void enter(RecentVolumes& volumes, const std::string& volume, const std::string& identifier,
           const KelvaneRecentServiceInfo& info, std::uint64_t freespace) {
  const Date now = currentDate();
  auto found = volumes.find(volume);
  if (found == volumes.end()) {
    auto entry = KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo({}, freespace, now, volume);
    found = volumes.emplace(volume, std::move(entry)).first;
  }
  found->second.setService(identifier, info);
  found->second.setFreespace(freespace);
  found->second.setTimestamp(now);
}

}  // namespace

Dictionary KelvanePurgeableOperation::cachedInfo(const Dictionary& info) {
  return dispatch_sync(state_->defaults_queue(), [&] {
    const std::string* const volume = info[KELVANE_VOLUME].string();
    const auto record = volume != nullptr ? recordOf(*state_) : nullptr;
    Dictionary to_count;
    auto status = KelvaneRecentInfo::nothing_to_do;
    if (record != nullptr) {
      status = record->validate(freespace_change, figure_age);
      to_count = figuresOf(*record, *volume);
    }
    KVLog(5, "%s servicesToCount: %@", cached_selector, to_count);
    const Array to_query = missingFrom(to_count, services());
    if (status == KelvaneRecentInfo::invalid) {
      KVLog(5, "%s Recent Info is invalid, deleting...", cached_selector);
      state_->clientSetStateSync({}, KELVANE_RECENT_SERVICE_STATS);
    } else if (status == KelvaneRecentInfo::changed) {
      KVLog(5, "%s Recent Info need syncing. New values: %@", cached_selector, *record);
      state_->clientSetStateSync(record, KELVANE_RECENT_SERVICE_STATS);
    }
    // What an answer is counted from is in the file before anyone gets the answer.
    state_->settleState();
    if (to_query.empty()) {
      KVLog(5, "%s using all cached info", cached_selector);
    } else {
      KVLog(5, "%s servicesToQuery: %@", cached_selector, to_query);
    }
    return Dictionary{{KELVANE_SERVICES_TO_QUERY, to_query}, {KELVANE_SERVICES_TO_COUNT, to_count}};
  });
}

void KelvanePurgeableOperation::updateServiceStats(const std::string& identifier, const Dictionary& entry) {
  // An answer without an amount says nothing; what was known before stays.
  if (!entry.contains(KELVANE_AMOUNT) || !entry[KELVANE_VOLUME].isString()) return;
  if (const std::size_t size = foundation::footprint(entry[KELVANE_AMOUNT]); size > largest_figure) {
    KVLog(3, "%s %@ answered with an amount that takes %llu bytes: expected a number", update_selector,
          identifier, size);
    return;
  }
  {
    const std::lock_guard lock(answers_mutex_);
    answers_.push_back({identifier, entry});
    if (answers_.size() > 1) return;  // recorded with those that wait already
  }
  const auto self = std::static_pointer_cast<KelvanePurgeableOperation>(shared_from_this());
  dispatch_async(state_->defaults_queue(), [self] { self->recordAnswers(); });
}

void KelvanePurgeableOperation::recordAnswers() {
  std::vector<Answer> answers;
  {
    const std::lock_guard lock(answers_mutex_);
    answers.swap(answers_);
  }
  Freespaces freespaces;
  std::shared_ptr<KelvaneRecentInfo> record;
  for (const auto& [identifier, entry] : answers) {
    record = recordOf(*state_);
    KVLog(5, "%s ^^^ENTRY, serviceID: %@ : %@, recentInfo: %@", update_selector, identifier, entry,
          record ? record->description() : "(null)");
    if (record == nullptr) record = KelvaneRecentInfo::kelvaneRecentInfo({});
    const std::string& volume = *entry[KELVANE_VOLUME].string();
    enter(record->volumes(), volume, identifier,
          KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(entry[KELVANE_AMOUNT], currentDate()),
          freespaces.of(volume));
    state_->clientSetStateSync(record, KELVANE_RECENT_SERVICE_STATS);
  }
  static_cast<void>(record->validate(freespace_change, figure_age));
  state_->clientSetStateSync(record, KELVANE_RECENT_SERVICE_STATS);
}

}  // namespace kelvane
