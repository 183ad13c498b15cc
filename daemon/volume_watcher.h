#pragma once

// Sees to it that a volume which runs low is purged without anybody asking: looks at each local volume when
// its watch says so, listens for changes of the mount table and for the kernel's quota warnings, and calls.
// What is decided, and why, stands in volume_watch.h; here is only what that is fed with.
//
// Each look is taken on the global queue, so that a volume that keeps it waiting keeps nobody else. At most
// one call is made at a time; it may take as long as a purge takes, and the looks go on meanwhile.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "daemon/volume_watch.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/host/quota_warnings.h"
#include "support/volumes.h"

namespace kelvane {

class VolumeWatcher final : public std::enable_shared_from_this<VolumeWatcher> {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Ended = std::function<void(std::uint64_t bytes)>;
  /// Purges what is low, for the condition that the flag says (low_disk.h). Calls `ended` when that is over,
  /// with the bytes that services reported, once and on any thread. Must not block.
  using Call = std::function<void(std::uint64_t flag, Ended ended)>;

  /// Looks at every local volume soon after, and goes on until `stop`.
  static std::shared_ptr<VolumeWatcher> start(Call call);
  VolumeWatcher(Key key, Call call);
  /// No look and no call starts afterwards. A call under way goes on to its end. From any thread.
  void stop();

  // What the kernel says, on any thread; tests say it as well.
  void mountsChanged();
  void quotaExceeded(const QuotaWarning& warning);

 private:
  struct Watched {
    VolumeWatch watch;
    std::uint64_t look_at = 0;
    std::uint64_t looked_at = 0;
    bool is_looking = false;
    bool is_outdated = false;  // a purge has ended since the look under way was begun
  };
  static constexpr std::uint64_t quota_interval = 1'000'000'000;  // between two calls for a quota
  static constexpr std::uint64_t refresh_interval = 20'000'000;   // between two readings of the mount table

  void listen();
  void refresh();
  void lookAtDue();
  void look(const std::string& volume, Watched& watched);
  void looked(const std::string& volume, const std::optional<VolumeLook>& look);
  void callForQuota();
  void begin(std::uint64_t flag);
  void ended(std::uint64_t bytes_reported);
  void setTimer();

  const Call call_;
  const dispatch_queue_t queue_;

  // Only on queue_.
  bool stopped_ = false;
  std::map<std::string, Watched> volumes_;
  Timer timer_;
  std::uint64_t timer_at_ = 0;
  Timer refresh_timer_;
  std::uint64_t refreshed_at_ = 0;
  bool is_calling_ = false;
  bool quota_is_due_ = false;
  std::uint64_t quota_called_at_ = 0;
  FileDescriptor mount_table_;
  std::unique_ptr<QuotaWarnings> quota_warnings_;
  EventSource mount_source_;
  EventSource quota_source_;
};

}  // namespace kelvane
