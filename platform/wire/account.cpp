#include "platform/wire/account.h"

#include <unistd.h>
#include <algorithm>
#include <cassert>
#include <iterator>

namespace kelvane::wire {

namespace {

constexpr std::uint64_t mebibyte = 1U << 20;

std::size_t indexOf(Resource resource) { return static_cast<std::size_t>(resource); }

}  // namespace

std::string_view nameOf(Resource resource) {
  static constexpr std::array<std::string_view, resource_count> names{
      "connections", "bytes received", "bytes queued", "descriptors", "calls", "services"};
  return names.at(indexOf(resource));
}

const Limits& ordinaryLimits() {
  static constexpr Limits limits{2048, 64 * mebibyte, 64 * mebibyte, 64, 1024, 512};
  return limits;
}

const Limits& privilegedLimits() {
  static constexpr Limits limits{16384, 96 * mebibyte, 96 * mebibyte, 512, 16384, 4096};
  return limits;
}

Account::~Account() {
  assert(std::all_of(used_.begin(), used_.end(), [](const auto& used) { return used.load() == 0; }));
}

std::uint64_t Account::limit(Resource resource) const { return limits_.at(indexOf(resource)); }

std::uint64_t Account::used(Resource resource) const { return used_.at(indexOf(resource)).load(); }

bool Account::charge(Resource resource, std::uint64_t amount) {
  auto& used = used_.at(indexOf(resource));
  const std::uint64_t most = limit(resource);
  std::uint64_t before = used.load(std::memory_order_relaxed);
  do {
    if (amount > most - before) return false;
  } while (!used.compare_exchange_weak(before, before + amount));
  return true;
}

std::uint64_t Account::chargeUpTo(Resource resource, std::uint64_t amount) {
  auto& used = used_.at(indexOf(resource));
  const std::uint64_t most = limit(resource);
  std::uint64_t before = used.load(std::memory_order_relaxed);
  std::uint64_t granted = 0;
  do {
    granted = std::min(amount, most - before);
  } while (!used.compare_exchange_weak(before, before + granted));
  return granted;
}

void Account::release(Resource resource, std::uint64_t amount) {
  if (amount == 0) return;
  const std::uint64_t before = used_.at(indexOf(resource)).fetch_sub(amount);
  assert(before >= amount);
  static_cast<void>(before);
  wakeWaiters(resource);
}

// A waiter registers before it checks for free room, and a release takes effect before it checks for waiters.
// So at least one of them sees the other, in any order.
void Account::whenReleased(Resource resource, std::weak_ptr<void> owner, std::function<void()> wake) {
  {
    const std::lock_guard lock(mutex_);
    if (waiters_.size() >= sweep_at_) sweepWaiters();
    waiters_.push_back({resource, std::move(owner), std::move(wake)});
    waiting_.at(indexOf(resource)).fetch_add(1);
  }
  if (used(resource) < limit(resource)) wakeWaiters(resource);
}

// Peers may come and go as long as nothing is released.
void Account::sweepWaiters() {
  std::erase_if(waiters_, [this](const Waiter& waiter) {
    if (!waiter.owner.expired()) return false;
    waiting_.at(indexOf(waiter.resource)).fetch_sub(1);
    return true;
  });
  sweep_at_ = std::max<std::size_t>(64, 2 * waiters_.size());
}

void Account::wakeWaiters(Resource resource) {
  if (waiting_.at(indexOf(resource)).load() == 0) return;
  for (const Waiter& waiter : takeWaiters(resource)) {
    if (const auto owner = waiter.owner.lock()) waiter.wake();
  }
}

std::vector<Account::Waiter> Account::takeWaiters(Resource resource) {
  const std::lock_guard lock(mutex_);
  const auto first = std::stable_partition(waiters_.begin(), waiters_.end(),
                                           [&](const Waiter& waiter) { return waiter.resource != resource; });
  std::vector<Waiter> taken(std::make_move_iterator(first), std::make_move_iterator(waiters_.end()));
  waiters_.erase(first, waiters_.end());
  waiting_.at(indexOf(resource)).store(0);
  return taken;
}

Charge& Charge::operator=(Charge&& other) noexcept {
  if (this != &other) {
    reset();
    account_ = std::move(other.account_);
    resource_ = other.resource_;
    amount_ = std::exchange(other.amount_, 0);
  }
  return *this;
}

Charge Charge::of(std::shared_ptr<Account> account, Resource resource, std::uint64_t amount) {
  if (!account->charge(resource, amount)) return {};
  return adopt(std::move(account), resource, amount);
}

Charge Charge::adopt(std::shared_ptr<Account> account, Resource resource, std::uint64_t amount) {
  Charge charge;
  charge.account_ = std::move(account);
  charge.resource_ = resource;
  charge.amount_ = amount;
  return charge;
}

void Charge::reset() {
  if (account_) account_->release(resource_, std::exchange(amount_, 0));
  account_.reset();
}

bool Charge::grow(std::uint64_t more) {
  if (!account_->charge(resource_, more)) return false;
  amount_ += more;
  return true;
}

std::uint64_t Charge::growUpTo(std::uint64_t more) {
  const std::uint64_t granted = account_->chargeUpTo(resource_, more);
  amount_ += granted;
  return granted;
}

void Charge::shrink(std::uint64_t less) {
  assert(less <= amount_);
  amount_ -= less;
  account_->release(resource_, less);
}

Charge Charge::split(std::uint64_t part) {
  assert(part <= amount_);
  amount_ -= part;
  return adopt(account_, resource_, part);
}

Accounts& Accounts::shared() {
  static Accounts accounts(ordinaryLimits(), privilegedLimits());
  return accounts;
}

Accounts::Accounts(const Limits& ordinary, const Limits& privileged)
    : ordinary_(ordinary), privileged_(privileged) {}

std::shared_ptr<Account> Accounts::of(uid_t user) {
  const std::lock_guard lock(mutex_);
  if (accounts_.size() >= sweep_at_) {
    std::erase_if(accounts_, [](const auto& entry) { return entry.second.expired(); });
    sweep_at_ = std::max<std::size_t>(16, 2 * accounts_.size());
  }
  std::weak_ptr<Account>& known = accounts_[user];
  if (auto account = known.lock()) return account;
  const bool privileged = user == 0 || user == ::geteuid();
  auto account = std::make_shared<Account>(user, privileged ? privileged_ : ordinary_);
  known = account;
  return account;
}

std::size_t Accounts::size() {
  const std::lock_guard lock(mutex_);
  return accounts_.size();
}

}  // namespace kelvane::wire
