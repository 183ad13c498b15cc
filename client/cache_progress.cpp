#include "client/cache_progress.h"

#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace kelvane::client {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds unit_grace{100};
constexpr milliseconds settles_within{500};
constexpr milliseconds settles_in_steps_of{10};

}  // namespace

std::uint64_t freeBytesOf(int directory) {
  struct statvfs status {};
  return ::fstatvfs(directory, &status) == 0 ? std::uint64_t{status.f_bfree} * status.f_frsize : 0;
}

CacheProgress::CacheProgress(const CacheTime& time, std::uint64_t amount) : time_(time), amount_(amount) {}

bool CacheProgress::done() {
  const std::lock_guard lock(mutex_);
  if (ended_) return true;
  if (purge_.freed >= amount_) {
    purge_.end = CachePurge::End::amountFreed;
  } else if (time_.isCancelled()) {
    purge_.end = CachePurge::End::cancelled;
  } else if (time_.isLate()) {
    purge_.end = CachePurge::End::tooLate;
  }
  ended_ = purge_.end != CachePurge::End::nothingLeft;
  return ended_;
}

void CacheProgress::stay(CacheStay reason, std::uint64_t bytes, std::uint64_t items) {
  const std::lock_guard lock(mutex_);
  CacheFigure& figure = purge_.stays[static_cast<std::size_t>(reason)];
  figure.bytes += bytes;
  figure.items += items;
}

void CacheProgress::failed(int error) {
  if (error == EROFS) return fail(error);
  const std::lock_guard lock(mutex_);
  if (purge_.failures++ == 0) purge_.error = error;
}

bool CacheProgress::begin(std::uint64_t bytes) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return under_way_ == 0 || purge_.freed + under_way_ < amount_; });
  if (ended_ || purge_.freed >= amount_ || time_.isCancelled()) return false;
  under_way_ += bytes;
  return true;
}

void CacheProgress::end(std::uint64_t bytes, const FileDeletion& deletion, std::uint64_t items) {
  {
    const std::lock_guard lock(mutex_);
    under_way_ -= bytes;
    add(deletion);
    if (deletion.is) purge_.items += items;
  }
  changed_.notify_all();
  if (deletion.error != 0) {
    stay(CacheStay::unreadable, bytes, 1);
    failed(deletion.error);
  }
}

bool CacheProgress::stopped() {
  if (time_.isCancelled() || time_.isLate(unit_grace)) return true;
  const std::lock_guard lock(mutex_);
  return purge_.end == CachePurge::End::failed;
}

void CacheProgress::deleted(const FileDeletion& deletion) {
  {
    const std::lock_guard lock(mutex_);
    add(deletion);
  }
  if (deletion.error != 0) failed(deletion.error);
}

void CacheProgress::unitGone() {
  const std::lock_guard lock(mutex_);
  ++purge_.items;
}

void CacheProgress::fail(int error) {
  const std::lock_guard lock(mutex_);
  if (purge_.failures++ == 0) purge_.error = error;
  purge_.end = CachePurge::End::failed;
  ended_ = true;
}

void CacheProgress::cancel() {
  const std::lock_guard lock(mutex_);
  if (!ended_) purge_.end = CachePurge::End::cancelled;
  ended_ = true;
}

/// Some file systems free blocks only some time after the file has been deleted.
void CacheProgress::settle(int directory, std::uint64_t before) {
  if (shared_ == 0 || time_.isCancelled() || time_.isLate()) return;
  ::syncfs(directory);
  const std::uint64_t most = purge_.freed + shared_;
  std::uint64_t after = freeBytesOf(directory);
  for (auto waited = milliseconds{0}; waited < settles_within && !time_.isLate();
       waited += settles_in_steps_of) {
    if (after >= before + most) break;
    std::this_thread::sleep_for(settles_in_steps_of);
    after = std::max(after, freeBytesOf(directory));
  }
  purge_.freed = std::clamp(after > before ? after - before : 0, purge_.freed, most);
  if (purge_.end == CachePurge::End::nothingLeft && purge_.freed >= amount_)
    purge_.end = CachePurge::End::amountFreed;
}

void CacheProgress::add(const FileDeletion& deletion) {
  purge_.freed += deletion.freed;
  purge_.held += deletion.held;
  purge_.files += deletion.is ? 1 : 0;
  shared_ += deletion.shared;
}

}  // namespace kelvane::client
