#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "client/cache_setup.h"
#include "client/file_deletion.h"
#include "client/unit_removal.h"

namespace kelvane::client {

/// Keeps the account of a purge. Files may be deleted by several threads at once.
class CacheProgress final : public CacheAccount, public UnitDeletions {
 public:
  CacheProgress(const CacheTime& time, std::uint64_t amount);

  [[nodiscard]] bool done() override;
  void stay(CacheStay reason, std::uint64_t bytes, std::uint64_t items) override;
  void failed(int error) override;

  /// Whether these bytes are wanted. When those that others are about to free may already be enough, that is
  /// waited for, so that no file goes in vain. `end` must follow.
  [[nodiscard]] bool begin(std::uint64_t bytes);
  void end(std::uint64_t bytes, const FileDeletion& deletion, std::uint64_t items);

  /// Of files of a unit. It is finished unless that takes long.
  [[nodiscard]] bool stopped() override;
  void deleted(const FileDeletion& deletion) override;
  void unitGone();

  /// Nothing goes any more.
  void fail(int error);
  void cancel();
  /// Replaces what is uncertain by what the volume tells, which had `before` bytes free. Waits for what is
  /// still to be written to the volume.
  void settle(int directory, std::uint64_t before);
  [[nodiscard]] const CachePurge& purge() const { return purge_; }

 private:
  void add(const FileDeletion& deletion);

  const CacheTime& time_;
  const std::uint64_t amount_;
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::uint64_t under_way_ = 0;  // bytes of files that are being deleted
  std::uint64_t shared_ = 0;     // bytes of deleted files that others may still have
  bool ended_ = false;
  CachePurge purge_{};
};

[[nodiscard]] std::uint64_t freeBytesOf(int directory);

}  // namespace kelvane::client
