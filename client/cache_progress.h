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

  /// Whether to free these bytes. While other threads are freeing what may already be enough, waits for them,
  /// so that no file is deleted needlessly. `end` must follow.
  [[nodiscard]] bool begin(std::uint64_t bytes);
  void end(std::uint64_t bytes, const FileDeletion& deletion, std::uint64_t items);

  /// For files of a unit, which is finished unless that takes too long.
  [[nodiscard]] bool stopped() override;
  void deleted(const FileDeletion& deletion) override;
  void unitGone();

  /// Nothing more is deleted.
  void fail(int error);
  void cancel();
  /// Replaces uncertain figures by a measurement of the volume, which had `before` bytes free. Waits for
  /// pending writes to the volume.
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
