#pragma once

// What each user's peers cost this process, and how much they may.
//
// One account for each user (kernel credentials), shared by all connections of that user. Everything that a
// peer can make grow is charged before it is taken and released when it is gone. A charge above the limit is
// refused: the connection is then read no further until something was released, or what was asked for is
// refused with LimitsExceeded. The limits and their reasons stand in docs/limits.md. Thread-safe.

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
  received_bytes,  // of messages under way, and of calls that are not yet done
  queued_bytes,    // of messages that the peer has not read
  descriptors,     // that came in and are not yet handed over to whoever keeps them
  calls,           // not yet done
  services,        // registered
};
inline constexpr std::size_t resource_count = 6;
/// As texts name it: "connections", "bytes received", ...
[[nodiscard]] std::string_view nameOf(Resource resource);

using Limits = std::array<std::uint64_t, resource_count>;

/// For everybody but root and this process's own user.
[[nodiscard]] const Limits& ordinaryLimits();
/// For root and this process's own user: higher, and still an end.
[[nodiscard]] const Limits& privilegedLimits();

class Account : public std::enable_shared_from_this<Account> {
 public:
  Account(uid_t user, const Limits& limits) : user_(user), limits_(limits) {}
  /// Nothing may be charged any more.
  ~Account();
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

  [[nodiscard]] uid_t user() const { return user_; }
  [[nodiscard]] std::uint64_t limit(Resource resource) const;
  [[nodiscard]] std::uint64_t used(Resource resource) const;

  /// All or nothing.
  [[nodiscard]] bool charge(Resource resource, std::uint64_t amount);
  /// As much of `amount` as the limit leaves; what was charged.
  [[nodiscard]] std::uint64_t chargeUpTo(Resource resource, std::uint64_t amount);
  void release(Resource resource, std::uint64_t amount);

  /// Calls `wake` once, on the thread that releases, when something of the resource is released; at once when
  /// some is free now. It must not block or call back into this account.
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
  std::size_t sweep_at_ = 64;    // guarded by mutex_; with so many those whose owner is gone are dropped
};

/// An amount that is charged as long as this lives. Movable; may be empty.
class Charge {
 public:
  Charge() = default;
  Charge(Charge&& other) noexcept
      : account_(std::move(other.account_)),
        resource_(other.resource_),
        amount_(std::exchange(other.amount_, 0)) {}
  Charge& operator=(Charge&& other) noexcept;
  ~Charge() { reset(); }

  /// Empty, and false as a boolean, when it would exceed the limit.
  [[nodiscard]] static Charge of(std::shared_ptr<Account> account, Resource resource, std::uint64_t amount);
  /// Takes over what was charged already.
  [[nodiscard]] static Charge adopt(std::shared_ptr<Account> account, Resource resource,
                                    std::uint64_t amount);

  explicit operator bool() const { return account_ != nullptr; }
  [[nodiscard]] std::uint64_t amount() const { return amount_; }
  void reset();

  // These need a charge that is not empty; one of amount 0 is enough.

  /// All or nothing.
  [[nodiscard]] bool grow(std::uint64_t more);
  /// As much of `more` as the limit leaves; what was added.
  [[nodiscard]] std::uint64_t growUpTo(std::uint64_t more);
  /// Releases a part, which must not exceed the amount.
  void shrink(std::uint64_t less);
  /// Gives a part of the amount to another charge.
  [[nodiscard]] Charge split(std::uint64_t part);

 private:
  std::shared_ptr<Account> account_;
  Resource resource_ = Resource::connections;
  std::uint64_t amount_ = 0;
};

/// The accounts of a process, one for each user with anything charged.
class Accounts {
 public:
  /// The only one of a process; tests make their own.
  static Accounts& shared();
  Accounts(const Limits& ordinary, const Limits& privileged);

  /// The user's account; made when there is none.
  [[nodiscard]] std::shared_ptr<Account> of(uid_t user);
  /// How many users are remembered, some of them perhaps for a while longer than they need be.
  [[nodiscard]] std::size_t size();

 private:
  const Limits ordinary_;
  const Limits privileged_;
  std::mutex mutex_;
  std::unordered_map<uid_t, std::weak_ptr<Account>> accounts_;  // guarded by mutex_
  std::size_t sweep_at_ = 16;  // guarded by mutex_; with so many entries the unused ones are forgotten
};

}  // namespace kelvane::wire
