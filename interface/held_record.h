#pragma once

#include <memory>
#include <utility>

#include "kelvane/value.h"
#include "support/recent_info.h"

namespace kelvane {

/// The record that the state store used last, as an object. Every answer to a question reads the record and
/// stores it again. Unarchiving, archiving and writing it each time would cost time quadratic in the number
/// of services. Held here, it is written once for many answers and unarchived once for many reads.
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

  /// The archive to write, for a record that is unwritten.
  [[nodiscard]] const Data& archive() {
    archive_ = archivedData(*record_);
    return archive_;
  }
  void noteWritten() { copy_ = Copy::current; }
  /// Notes that writing failed; true if it had not failed before.
  [[nodiscard]] bool noteRefused() { return std::exchange(copy_, Copy::refused) != Copy::refused; }

  /// The record in this archive; null if it is not a valid one.
  [[nodiscard]] std::shared_ptr<KelvaneRecentInfo> unarchived(const Data& archive) {
    if (record_ == nullptr || !(archive == archive_)) {
      record_ = unarchivedRecentInfo(archive);
      archive_ = archive;
    }
    return record_;
  }

 private:
  enum class Copy { current, outdated, refused };  // the copy in the file; refused: it could not be replaced

  std::shared_ptr<KelvaneRecentInfo> record_;
  Data archive_;  // of the record, when it is written
  Copy copy_ = Copy::current;
};

}  // namespace kelvane
