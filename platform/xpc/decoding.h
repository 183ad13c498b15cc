#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "platform/wire/account.h"

namespace kelvane::xpc {

/// So many values may a message hold.
inline constexpr std::size_t most_values = 1U << 20;

/// Stands for the reading of one message on the calling thread: how many values were read, and who pays for
/// the memory that they take. A value can take 45 times the bytes that it came in, so these are charged as it
/// is built; the message's own bytes, which go when it has been read, pay for the first of it. What is read
/// outside of any Decoding is paid by nobody.
class Decoding {
 public:
  /// `bytes` is the size of the message, which is charged to the payer already.
  Decoding(std::shared_ptr<wire::Account> payer, std::size_t bytes);
  ~Decoding();
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;

  /// The innermost on this thread; null when there is none.
  static Decoding* current();

  [[nodiscard]] const std::shared_ptr<wire::Account>& payer() const { return payer_; }
  /// One more value, of so many bytes; false when it is one too many, or when the payer has no room for it.
  [[nodiscard]] bool take(std::size_t bytes);
  /// What was charged beyond the message's own bytes.
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
