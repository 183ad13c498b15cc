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
    record_ = std::move(record);
    if (copy_ == Copy::current) copy_ = Copy::outdated;
  }

  [[nodiscard]] bool isUnwritten() const { return copy_ != Copy::current; }
  [[nodiscard]] const std::shared_ptr<KelvaneRecentInfo>& record() const { return record_; }

  /// What is to be written, of a record that is unwritten.
  [[nodiscard]] const Data& archive() {
    archive_ = archivedData(*record_);
    return archive_;
  }
  void noteWritten() { copy_ = Copy::current; }
  /// That it could not be written; whether this is news.
  [[nodiscard]] bool noteRefused() { return std::exchange(copy_, Copy::refused) != Copy::refused; }

  /// The record of this archive; null when it is none.
  [[nodiscard]] std::shared_ptr<KelvaneRecentInfo> unarchived(const Data& archive) {
    if (record_ == nullptr || !(archive == archive_)) {
      record_ = unarchivedRecentInfo(archive);
      archive_ = archive;
    }
    return record_;
  }

 private:
  enum class Copy { current, outdated, refused };  // the one in the file; refused: it could not be replaced

  std::shared_ptr<KelvaneRecentInfo> record_;
  Data archive_;  // of the record, when it is written
  Copy copy_ = Copy::current;
};

}  // namespace kelvane
