#pragma once

// Calls for purges of volumes that run low, without a request. It samples each local volume when its watch
// asks for it, and listens for changes of the mount table and for the kernel's quota warnings. The decisions
// and their reasons are in volume_watch.h; this class only provides their input.
//
// Each sample is taken on the global queue, so a volume that does not respond delays no other. At most one
// call is made at a time; it may take as long as a purge, and sampling continues meanwhile.

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
  /// Purges the low volumes for the condition in the flag (low_disk.h). Calls `ended` once, on any thread,
  /// when that is over, with the bytes that services reported. Must not block.
  using Call = std::function<void(std::uint64_t flag, Ended ended)>;

  /// Samples every local volume soon after, and continues until `stop`.
  static std::shared_ptr<VolumeWatcher> start(Call call);
  VolumeWatcher(Key key, Call call);
  /// No sample and no call starts afterwards. A call under way runs to its end. From any thread.
  void stop();

  // Events from the kernel, on any thread; tests raise them as well.
  void mountsChanged();
  void quotaExceeded(const QuotaWarning& warning);

 private:
  struct Watched {
    VolumeWatch watch;
    std::uint64_t look_at = 0;
    std::uint64_t looked_at = 0;
    bool is_looking = false;
    bool is_outdated = false;  // a purge has ended since the current sample began
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
