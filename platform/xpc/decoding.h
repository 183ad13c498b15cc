#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "platform/wire/account.h"

namespace kelvane::xpc {

/// The most values that a message may hold.
inline constexpr std::size_t most_values = 1U << 20;

/// The reading of one message on the calling thread: counts its values, and charges their memory to an
/// account. A value can take 45 times as many bytes as in the message, so the memory is charged while the
/// value is built. The charge for the message's own bytes, which are freed after reading, covers the first
/// part. Values read outside of any Decoding are not charged.
class Decoding {
 public:
  /// `bytes` is the size of the message, which is charged to the payer already.
  Decoding(std::shared_ptr<wire::Account> payer, std::size_t bytes);
  ~Decoding();
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;

  /// The innermost on this thread; null if there is none.
  static Decoding* current();

  [[nodiscard]] const std::shared_ptr<wire::Account>& payer() const { return payer_; }
  /// Counts one more value of this many bytes; false if it exceeds the number of values or the account's
  /// limit.
  [[nodiscard]] bool take(std::size_t bytes);
  /// The charge beyond the message's own bytes.
  [[nodiscard]] wire::Charge takeCharge() { return std::move(charge_); }

 private:
  const std::shared_ptr<wire::Account> payer_;
  Decoding* const outer_;
  wire::Charge charge_;
  std::size_t paid_;  // bytes
  std::size_t built_ = 0;
  std::size_t values_ = 0;
};

}  // namespace kelvane::xpc
