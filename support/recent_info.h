#pragma once

// What services last said they could free: one record for all volumes, kept so that a question asked again
// soon need not cross every connection again.
//
// The record holds an entry for each volume, that one for each service of it. All three are plain values; one
// thread at a time. Amounts and free space are bytes.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kelvane/value.h"

namespace kelvane {

/// One service's last figure on one volume.
class KelvaneRecentServiceInfo {
 public:
  static KelvaneRecentServiceInfo kelvaneRecentServiceInfo(const Value& amount, Date timestamp) {
    return {amount, timestamp};
  }

  /// As the service gave it: a number of bytes, when the service keeps to the rules.
  [[nodiscard]] const Value& amount() const { return amount_; }
  /// When the answer was recorded.
  [[nodiscard]] Date timestamp() const { return timestamp_; }
  friend bool operator==(const KelvaneRecentServiceInfo&, const KelvaneRecentServiceInfo&) = default;

 private:
  KelvaneRecentServiceInfo(const Value& amount, Date timestamp) : amount_(amount), timestamp_(timestamp) {}

  Value amount_;
  Date timestamp_;
};

/// Service identifier to its figure.
using RecentServices = std::map<std::string, KelvaneRecentServiceInfo, std::less<>>;

/// One volume: the figures of its services, and its free space when the last of them was recorded.
class KelvaneRecentVolumeInfo {
 public:
  static KelvaneRecentVolumeInfo kelvaneRecentVolumeInfo(RecentServices services, std::uint64_t freespace,
                                                         Date timestamp, std::string volumeName);

  [[nodiscard]] const RecentServices& services() const { return services_; }
  void setServices(RecentServices services);
  /// Their amounts alone. Costs nothing to copy.
  [[nodiscard]] const Dictionary& amounts() const { return amounts_; }
  /// Replaces one of them; takes the same time however many there are.
  void setService(const std::string& identifier, KelvaneRecentServiceInfo info);
  [[nodiscard]] std::uint64_t freespace() const { return freespace_; }
  void setFreespace(std::uint64_t bytes) { freespace_ = bytes; }
  [[nodiscard]] Date timestamp() const { return timestamp_; }
  void setTimestamp(Date timestamp) { timestamp_ = timestamp; }
  [[nodiscard]] const std::string& volumeName() const { return volume_name_; }

  /// Drops the figures that are older than `threshold` seconds or from the future; whether there were any.
  bool dropServicesOlderThan(double threshold, Date now);

  friend bool operator==(const KelvaneRecentVolumeInfo& a, const KelvaneRecentVolumeInfo& b) {
    return a.services_ == b.services_ && a.freespace_ == b.freespace_ && a.timestamp_ == b.timestamp_ &&
           a.volume_name_ == b.volume_name_;
  }

 private:
  KelvaneRecentVolumeInfo() = default;
  void noteTimestamp(Date timestamp);

  RecentServices services_;
  Dictionary amounts_;
  // No figure is older than the first nor younger than the second; so most of the time nobody need look.
  Date oldest_;
  Date youngest_;
  std::uint64_t freespace_ = 0;
  Date timestamp_;
  std::string volume_name_;
};

/// Volume name to its entry.
using RecentVolumes = std::map<std::string, KelvaneRecentVolumeInfo, std::less<>>;

class KelvaneRecentInfo {
 public:
  explicit KelvaneRecentInfo(RecentVolumes volumes) : volumes_(std::move(volumes)) {}
  static std::shared_ptr<KelvaneRecentInfo> kelvaneRecentInfo(RecentVolumes volumes) {
    return std::make_shared<KelvaneRecentInfo>(std::move(volumes));
  }

  [[nodiscard]] const RecentVolumes& volumes() const { return volumes_; }
  [[nodiscard]] RecentVolumes& volumes() { return volumes_; }
  void setVolumes(RecentVolumes volumes) { volumes_ = std::move(volumes); }

  enum Status : int { nothing_to_do = 0, invalid = 2, changed = 3 };
  /// Drops what can no longer be relied on: the figures of a volume whose free space, asked now, differs by
  /// more than `number` bytes from the recorded one, and figures that are older than `threshold` seconds or
  /// from the future. `invalid`: nothing is left, or the record contradicts itself and was emptied; it is to
  /// be removed from where it is kept. `changed`: something was dropped, and the rest is to be stored.
  [[nodiscard]] Status validate(std::uint64_t number, double threshold);

  /// For log lines.
  [[nodiscard]] std::string description() const;
  friend bool operator==(const KelvaneRecentInfo&, const KelvaneRecentInfo&) = default;

 private:
  RecentVolumes volumes_;
};

// The record's archive is the bytes "KVR", a version byte (1), the number of volumes, and for each, in
// ascending order of the names:
//
//   name           text
//   free space     number
//   timestamp      signed number, microseconds since 1970
//   services       number of them, and for each, in ascending order of the identifiers:
//     identifier   text
//     timestamp    signed number, microseconds since 1970
//     amount       object
//
// in the terms of platform/foundation/archive.h: a text is its length and its bytes, an object a tag and its
// content.

/// Empty when an amount nests too deep for archives.
[[nodiscard]] Data archivedData(const KelvaneRecentInfo& info);
/// Null when the bytes are no archive of a record, whoever made them: they cost time and memory in proportion
/// to their number.
[[nodiscard]] std::shared_ptr<KelvaneRecentInfo> unarchivedRecentInfo(const Data& archive);

}  // namespace kelvane
