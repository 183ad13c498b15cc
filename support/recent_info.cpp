#include "support/recent_info.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/host/time.h"
#include "support/volumes.h"

namespace kelvane {
namespace {

std::uint64_t distance(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : b - a; }

std::vector<std::string> namesOf(const RecentVolumes& volumes) {
  std::vector<std::string> names;
  names.reserve(volumes.size());
  for (const auto& [name, volume] : volumes) names.push_back(name);
  return names;
}

bool isReliable(Date timestamp, double threshold, Date now) {
  return timestamp <= now && now.secondsSince(timestamp) <= threshold;
}

}  // namespace

// --- one volume ---

KelvaneRecentVolumeInfo KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(RecentServices services,
                                                                         std::uint64_t freespace,
                                                                         Date timestamp,
                                                                         std::string volumeName) {
  KelvaneRecentVolumeInfo info;
  info.setServices(std::move(services));
  info.freespace_ = freespace;
  info.timestamp_ = timestamp;
  info.volume_name_ = std::move(volumeName);
  return info;
}

void KelvaneRecentVolumeInfo::setServices(RecentServices services) {
  services_ = std::move(services);
  oldest_ = {std::numeric_limits<std::int64_t>::max()};
  youngest_ = {std::numeric_limits<std::int64_t>::min()};
  amounts_.clear();
  for (const auto& [identifier, info] : services_) {
    noteTimestamp(info.timestamp());
    amounts_.set(identifier, info.amount());
  }
}

void KelvaneRecentVolumeInfo::setService(const std::string& identifier, KelvaneRecentServiceInfo info) {
  noteTimestamp(info.timestamp());
  amounts_.set(identifier, info.amount());
  services_.insert_or_assign(identifier, std::move(info));
}

void KelvaneRecentVolumeInfo::noteTimestamp(Date timestamp) {
  oldest_ = std::min(oldest_, timestamp);
  youngest_ = std::max(youngest_, timestamp);
}

bool KelvaneRecentVolumeInfo::dropServicesOlderThan(double threshold, Date now) {
  if (isReliable(oldest_, threshold, now) && isReliable(youngest_, threshold, now)) return false;
  const auto dropped = std::erase_if(
      services_, [&](const auto& entry) { return !isReliable(entry.second.timestamp(), threshold, now); });
  setServices(std::move(services_));  // what replaced an old figure has left its bounds too wide
  return dropped > 0;
}

// --- the record ---

KelvaneRecentInfo::Status KelvaneRecentInfo::validate(std::uint64_t number, double threshold) {
  if (std::any_of(volumes_.begin(), volumes_.end(),
                  [](const auto& entry) { return entry.first != entry.second.volumeName(); }))
    volumes_.clear();
  const Date now = currentDate();
  bool dropped = false;
  const std::vector<std::uint64_t> freespaces = volumeFreespaces(namesOf(volumes_));
  auto freespace = freespaces.begin();
  for (auto entry = volumes_.begin(); entry != volumes_.end(); ++freespace) {
    auto& [name, volume] = *entry;
    const bool moved = distance(*freespace, volume.freespace()) > number;
    if (!moved && volume.dropServicesOlderThan(threshold, now)) dropped = true;
    const bool goes = moved || volume.services().empty();
    if (goes) dropped = true;
    entry = goes ? volumes_.erase(entry) : std::next(entry);
  }
  if (volumes_.empty()) return invalid;
  return dropped ? changed : nothing_to_do;
}

std::string KelvaneRecentInfo::description() const {
  Dictionary volumes;
  for (const auto& [name, volume] : volumes_) {
    Dictionary services;
    for (const auto& [identifier, info] : volume.services())
      services.set(identifier, Dictionary{{"amount", info.amount()}, {"timestamp", info.timestamp()}});
    volumes.set(name, Dictionary{{"freespace", volume.freespace()},
                                 {"services", services},
                                 {"timestamp", volume.timestamp()}});
  }
  return Value(volumes).description();
}

}  // namespace kelvane
