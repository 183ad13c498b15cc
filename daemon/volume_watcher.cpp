#include "daemon/volume_watcher.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <algorithm>
#include <utility>

#include "daemon/low_disk.h"
#include "platform/dispatch/clock.h"
#include "support/mount_table.h"

namespace kelvane {

std::shared_ptr<VolumeWatcher> VolumeWatcher::start(Call call) {
  auto watcher = std::make_shared<VolumeWatcher>(Key(), std::move(call));
  dispatch_sync(watcher->queue_, [&] {
    watcher->listen();
    watcher->refresh();
  });
  return watcher;
}

VolumeWatcher::VolumeWatcher(Key /*key*/, Call call)
    : call_(std::move(call)), queue_(dispatch_queue_create("com.orvel.kelvane_watch")) {}

void VolumeWatcher::stop() {
  dispatch_sync(queue_, [this] {
    stopped_ = true;
    mount_source_.cancel();
    quota_source_.cancel();
    timer_.cancel();
    refresh_timer_.cancel();
  });
}

void VolumeWatcher::listen() {
  const std::weak_ptr<VolumeWatcher> weak = weak_from_this();
  mount_table_ = FileDescriptor(::open(mount_table_path, O_RDONLY | O_CLOEXEC));
  if (mount_table_) {
    mount_source_ = EventSource(mount_table_.get(), EPOLLPRI, [weak](std::uint32_t) {
      if (const auto watcher = weak.lock()) watcher->mountsChanged();
    });
  }
  quota_warnings_ = QuotaWarnings::listen();
  if (quota_warnings_ == nullptr) return;
  quota_source_ = EventSource(quota_warnings_->descriptor(), EPOLLIN, [weak](std::uint32_t) {
    const auto watcher = weak.lock();
    if (watcher == nullptr) return;
    while (const auto warning = watcher->quota_warnings_->next()) watcher->quotaExceeded(*warning);
  });
}

/// Many changes soon after one another are read as one.
void VolumeWatcher::mountsChanged() {
  dispatch_async(queue_, [self = shared_from_this()] {
    if (self->stopped_ || self->refresh_timer_.isSet()) return;
    const std::uint64_t soonest = self->refreshed_at_ + refresh_interval;
    if (Clock::current().now() >= soonest) return self->refresh();
    self->refresh_timer_ = Timer(soonest, self->queue_, [self] {
      self->refresh_timer_.cancel();
      self->refresh();
    });
  });
}

void VolumeWatcher::quotaExceeded(const QuotaWarning& warning) {
  // What is asked is the daemon's own user's quota; another's says nothing about it.
  if (!warning.exceeded || warning.of != QuotaWarning::Of::user || warning.id != ::getuid()) return;
  dispatch_async(queue_, [self = shared_from_this()] {
    self->quota_is_due_ = true;
    self->lookAtDue();
  });
}

void VolumeWatcher::refresh() {
  if (stopped_) return;
  refreshed_at_ = Clock::current().now();
  std::map<std::string, Watched> mounted;
  for (const std::string& volume : getLocalVolumes()) {
    const auto known = volumes_.find(volume);
    if (known != volumes_.end()) {
      mounted.insert(*known);
    } else {
      Watched& watched = mounted.emplace(volume, Watched{VolumeWatch(spaceThresholds())}).first->second;
      if (is_calling_) watched.watch.purgeBegan();
    }
  }
  volumes_ = std::move(mounted);
  lookAtDue();
}

void VolumeWatcher::lookAtDue() {
  if (stopped_) return;
  const std::uint64_t now = Clock::current().now();
  for (auto& [volume, watched] : volumes_) {
    // Those that are half way there are looked at as well: so the looks at all that are idle fall together
    // before long, and cost one wake-up.
    const std::uint64_t tolerance = (watched.look_at - watched.looked_at) / 2;
    if (!watched.is_looking && watched.look_at <= now + tolerance) look(volume, watched);
  }
  callForQuota();
  setTimer();
}

void VolumeWatcher::look(const std::string& volume, Watched& watched) {
  watched.is_looking = true;
  dispatch_async(dispatch_get_global_queue(0, 0), [self = shared_from_this(), volume] {
    const std::optional<VolumeLook> look = lookAtVolume(volume);
    dispatch_async(self->queue_, [self, volume, look] { self->looked(volume, look); });
  });
}

void VolumeWatcher::looked(const std::string& volume, const std::optional<VolumeLook>& look) {
  const auto found = volumes_.find(volume);
  if (stopped_ || found == volumes_.end()) return;
  Watched& watched = found->second;
  if (std::exchange(watched.is_outdated, false)) return this->look(volume, watched);
  const std::uint64_t now = Clock::current().now();
  watched.is_looking = false;
  watched.looked_at = now;
  if (!look) {
    watched.look_at = now + VolumeWatch::latest;
    return setTimer();
  }
  const VolumeWatch::Decision decision = watched.watch.look(now, look->space, look->level);
  watched.look_at = decision.look_again_at;
  if (decision.call) begin(look->level == SpaceLevel::very_low ? VQ_VERYLOWDISK : VQ_LOWDISK);
  setTimer();
}

void VolumeWatcher::callForQuota() {
  const std::uint64_t now = Clock::current().now();
  if (!quota_is_due_ || is_calling_ || (quota_called_at_ != 0 && now < quota_called_at_ + quota_interval))
    return;
  quota_is_due_ = false;
  quota_called_at_ = now;
  begin(VFS_QUOTA);
}

/// One call is for all volumes: whichever are low are purged for it.
void VolumeWatcher::begin(std::uint64_t flag) {
  is_calling_ = true;
  for (auto& [volume, watched] : volumes_) watched.watch.purgeBegan();
  call_(flag, [self = shared_from_this()](std::uint64_t bytes) {
    dispatch_async(self->queue_, [self, bytes] { self->ended(bytes); });
  });
}

void VolumeWatcher::ended(std::uint64_t bytes_reported) {
  is_calling_ = false;
  const std::uint64_t now = Clock::current().now();
  for (auto& [volume, watched] : volumes_) {
    watched.watch.purgeEnded(now, bytes_reported);
    watched.look_at = now;
    watched.is_outdated = watched.is_looking;
  }
  lookAtDue();
}

void VolumeWatcher::setTimer() {
  std::uint64_t next = DISPATCH_TIME_FOREVER;
  for (const auto& [volume, watched] : volumes_) {
    if (!watched.is_looking) next = std::min(next, watched.look_at);
  }
  if (quota_is_due_ && !is_calling_) next = std::min(next, quota_called_at_ + quota_interval);
  if (stopped_ || next == timer_at_) return;
  timer_at_ = next;
  timer_ = next == DISPATCH_TIME_FOREVER ? Timer() : Timer(next, queue_, [self = shared_from_this()] {
    self->timer_at_ = 0;
    self->lookAtDue();
  });
}

}  // namespace kelvane
