#include "caches/worker_slots.h"

#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "caches/users.h"

namespace kelvane::caches {
namespace {

/// The time that a killed process may take to end.
constexpr std::chrono::milliseconds patience(500);

}  // namespace

WorkerSlots::Call::Call(WorkerSlots& slots) : slots_(slots) {
  const std::lock_guard lock(slots_.mutex_);
  ++slots_.calls_;
}

WorkerSlots::Call::~Call() {
  const std::lock_guard lock(slots_.mutex_);
  --slots_.calls_;
}

WorkerSlots::Slot WorkerSlots::Call::take(uid_t user) {
  const std::lock_guard lock(slots_.mutex_);
  if (const auto found = slots_.abandoned_.find(user); found != slots_.abandoned_.end()) {
    std::erase_if(found->second, [](const Abandoned& worker) { return hasEnded(worker); });
    if (!found->second.empty()) {
      const bool is_dying = std::chrono::steady_clock::now() - found->second.front().since < patience;
      return is_dying ? Slot::busy : Slot::stuck;
    }
    slots_.abandoned_.erase(found);
  }
  const std::size_t part = std::max<std::size_t>(1, most / slots_.calls_);
  std::size_t& of_user = slots_.taken_of_[user];
  if (slots_.taken_ >= most || taken_ >= part || of_user >= most_of_one_user) return Slot::busy;
  ++slots_.taken_;
  ++taken_;
  ++of_user;
  return Slot::taken;
}

void WorkerSlots::Call::giveBack(uid_t user) {
  const std::lock_guard lock(slots_.mutex_);
  --slots_.taken_;
  --taken_;
  if (--slots_.taken_of_[user] == 0) slots_.taken_of_.erase(user);
}

void WorkerSlots::Call::abandon(uid_t user, FileDescriptor socket) {
  giveBack(user);
  const std::lock_guard lock(slots_.mutex_);
  slots_.abandoned_[user].push_back({std::move(socket), std::chrono::steady_clock::now()});
}

bool WorkerSlots::hasEnded(const Abandoned& worker) {
  std::array<char, 1> rest{};
  ssize_t length = 1;
  while (length > 0) length = ::recv(worker.socket.get(), rest.data(), rest.size(), MSG_DONTWAIT);
  return length == 0 || (errno != EAGAIN && errno != EINTR);
}

void WorkerSlots::setLate(uid_t user, bool late) {
  const std::lock_guard lock(mutex_);
  if (!late) {
    late_.erase(user);
  } else if (late_.size() < most_users) {
    late_.insert(user);
  }
}

bool WorkerSlots::wasLate(uid_t user) const {
  const std::lock_guard lock(mutex_);
  return late_.contains(user);
}

}  // namespace kelvane::caches
