#pragma once

// What the peers of each user cost this process, and the limits on that.
//
// One account for each user (kernel credentials), shared by all connections of that user. Every resource that
// a peer can use up is charged before it is taken, and released when it is freed. A charge that exceeds the
// limit is refused: either the connection is not read until something is released, or the request is refused
// with LimitsExceeded. docs/limits.md has the limits and their reasons. Thread-safe.

#include <sys/types.h>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvane::wire {

enum class Resource : std::uint8_t {
  connections,
  received_bytes,  // of partly received messages and unfinished calls
  queued_bytes,    // of messages that the peer has not read
  descriptors,     // received, and not yet handed over to their user
  calls,           // unfinished
  services,        // registered
};
inline constexpr std::size_t resource_count = 6;
/// Its name in messages: "connections", "bytes received", ...
[[nodiscard]] std::string_view nameOf(Resource resource);

using Limits = std::array<std::uint64_t, resource_count>;

/// For all users except root and this process's own.
[[nodiscard]] const Limits& ordinaryLimits();
/// For root and this process's own user: higher, but still limited.
[[nodiscard]] const Limits& privilegedLimits();

class Account : public std::enable_shared_from_this<Account> {
 public:
  Account(uid_t user, const Limits& limits) : user_(user), limits_(limits) {}
  /// Nothing more can be charged.
  ~Account();
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

  [[nodiscard]] uid_t user() const { return user_; }
  [[nodiscard]] std::uint64_t limit(Resource resource) const;
  [[nodiscard]] std::uint64_t used(Resource resource) const;

  /// All or nothing.
  [[nodiscard]] bool charge(Resource resource, std::uint64_t amount);
  /// Charges as much of `amount` as the limit allows; returns what was charged.
  [[nodiscard]] std::uint64_t chargeUpTo(Resource resource, std::uint64_t amount);
  void release(Resource resource, std::uint64_t amount);

  /// Calls `wake` once, on the releasing thread, when some of the resource is released; at once if some is
  /// free now. `wake` must not block or call back into this account.
  void whenReleased(Resource resource, std::weak_ptr<void> owner, std::function<void()> wake);

 private:
  struct Waiter {
    Resource resource;
    std::weak_ptr<void> owner;
    std::function<void()> wake;
  };

  void wakeWaiters(Resource resource);
  void sweepWaiters();
  std::vector<Waiter> takeWaiters(Resource resource);

  const uid_t user_;
  const Limits limits_;
  std::array<std::atomic<std::uint64_t>, resource_count> used_{};
  std::array<std::atomic<std::size_t>, resource_count>
      waiting_{};  // how many of waiters_; changed under mutex_
  std::mutex mutex_;
  std::vector<Waiter> waiters_;  // guarded by mutex_
  std::size_t sweep_at_ = 64;    // guarded by mutex_; at this size, waiters without an owner are removed
};

/// An amount that stays charged while this object lives. Movable; may be empty.
class Charge {
 public:
  Charge() = default;
  Charge(Charge&& other) noexcept
      : account_(std::move(other.account_)),
        resource_(other.resource_),
        amount_(std::exchange(other.amount_, 0)) {}
  Charge& operator=(Charge&& other) noexcept;
  ~Charge() { reset(); }

  /// Empty, and false as a boolean, if the amount would exceed the limit.
  [[nodiscard]] static Charge of(std::shared_ptr<Account> account, Resource resource, std::uint64_t amount);
  /// Takes over an amount that is already charged.
  [[nodiscard]] static Charge adopt(std::shared_ptr<Account> account, Resource resource,
                                    std::uint64_t amount);

  explicit operator bool() const { return account_ != nullptr; }
  [[nodiscard]] std::uint64_t amount() const { return amount_; }
  void reset();

  // These require a charge that is not empty; an amount of 0 is enough.

  /// All or nothing.
  [[nodiscard]] bool grow(std::uint64_t more);
  /// Adds as much of `more` as the limit allows; returns what was added.
  [[nodiscard]] std::uint64_t growUpTo(std::uint64_t more);
  /// Releases a part, which must not exceed the amount.
  void shrink(std::uint64_t less);
  /// Moves a part of the amount to another charge.
  [[nodiscard]] Charge split(std::uint64_t part);

 private:
  std::shared_ptr<Account> account_;
  Resource resource_ = Resource::connections;
  std::uint64_t amount_ = 0;
};

/// The accounts of a process, one for each user to whom anything is charged.
class Accounts {
 public:
  /// The one instance that a process uses; tests create their own.
  static Accounts& shared();
  Accounts(const Limits& ordinary, const Limits& privileged);

  /// The user's account; created if there is none.
  [[nodiscard]] std::shared_ptr<Account> of(uid_t user);
  /// The number of users in the table. Unused entries are removed some time later.
  [[nodiscard]] std::size_t size();

 private:
  const Limits ordinary_;
  const Limits privileged_;
  std::mutex mutex_;
  std::unordered_map<uid_t, std::weak_ptr<Account>> accounts_;  // guarded by mutex_
  std::size_t sweep_at_ = 16;  // guarded by mutex_; at this size, unused entries are removed
};

}  // namespace kelvane::wire
