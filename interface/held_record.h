#pragma once

#include <memory>
#include <utility>

#include "kelvane/value.h"
#include "support/recent_info.h"

namespace kelvane {

/// The record that the state store had in hand last, as an object. Every answer of a question takes the
/// record out and stores it again, so to unarchive, archive and write it each time would cost with the square
/// of the services. Held here it is written once for many answers, and unarchived once for many readings.
///
/// One thread at a time.
class HeldRecord {
 public:
  /// Holds what is to be written.
  void hold(std::shared_ptr<KelvaneRecentInfo> record) {
    *this = {};
    record_ = std::move(record);
    unwritten_ = true;
  }

  [[nodiscard]] bool isUnwritten() const { return unwritten_; }
  [[nodiscard]] const std::shared_ptr<KelvaneRecentInfo>& record() const { return record_; }

  /// Its archive, which is to be written now.
  [[nodiscard]] Data takeArchive() {
    unwritten_ = false;
    archive_ = archivedData(*record_);
    return archive_;
  }
  /// The record of this archive; null when it is none.
  [[nodiscard]] std::shared_ptr<KelvaneRecentInfo> unarchived(const Data& archive) {
    if (record_ == nullptr || !(archive == archive_)) {
      record_ = unarchivedRecentInfo(archive);
      archive_ = archive;
    }
    return record_;
  }

 private:
  std::shared_ptr<KelvaneRecentInfo> record_;
  Data archive_;  // of the record, when it is written
  bool unwritten_ = false;
};

}  // namespace kelvane
