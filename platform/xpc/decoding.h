#pragma once

#include <cstddef>
#include <memory>

#include "platform/wire/account.h"

namespace kelvane::xpc {

/// So many values may a message hold. Each costs memory of its own once it is read: a message of 32 MiB that
/// holds nothing but the least values would become ten times as much.
inline constexpr std::size_t most_values = 1U << 20;

/// Stands for the reading of one message on the calling thread: who pays for what comes of it, and how many
/// values were read. What is read outside of any counts for itself, and nobody pays.
class Decoding {
 public:
  explicit Decoding(std::shared_ptr<wire::Account> payer);
  ~Decoding();
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;

  /// The innermost on this thread; null when there is none.
  static Decoding* current();

  [[nodiscard]] const std::shared_ptr<wire::Account>& payer() const { return payer_; }
  /// Counts one more value; false when it is one too many.
  [[nodiscard]] bool countValue() { return ++values_ <= most_values; }

 private:
  const std::shared_ptr<wire::Account> payer_;
  Decoding* const outer_;
  std::size_t values_ = 0;
};

}  // namespace kelvane::xpc
