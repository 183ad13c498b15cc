#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <utility>

#include "common/keys.h"
#include "kelvane/value.h"

namespace kelvane {

/// `a` + `b`, or the largest number when that does not fit. Peers choose the amounts.
[[nodiscard]] constexpr std::uint64_t saturatingSum(std::uint64_t a, std::uint64_t b) {
  return b > std::numeric_limits<std::uint64_t>::max() - a ? std::numeric_limits<std::uint64_t>::max()
                                                           : a + b;
}

/// What one purge has gathered: the dictionary that becomes its result and the template of its requests, and
/// beside it the bytes that services reported for it. The bytes are counted apart because a service's second
/// report in one pass replaces its first one in the dictionary, and both were freed.
///
/// The dictionary belongs to whichever queue its owner names. The bytes are counted on one queue at a time
/// and may be read on any thread.
class WorkingDictionary {
 public:
  explicit WorkingDictionary(Dictionary info) : contents_(std::move(info)) {}

  [[nodiscard]] const Dictionary& contents() const { return contents_; }
  [[nodiscard]] const Value& operator[](std::string_view key) const { return contents_[key]; }
  void set(std::string_view key, Value value) {
    contents_.set(key, std::move(value));
    request_.clear();
  }
  void clear() {
    contents_.clear();
    request_.clear();
  }
  /// What a service is asked that is to give so much: the contents, with that amount. Many are asked for the
  /// same amount in a row, and share one dictionary.
  [[nodiscard]] const Dictionary& request(std::uint64_t amount) {
    if (request_.empty() || request_amount_ != amount) {
      request_ = contents_;
      request_.set(KELVANE_AMOUNT, amount);
      request_amount_ = amount;
    }
    return request_;
  }

  void countReport(std::uint64_t bytes) {
    reported_.store(saturatingSum(reported_.load(std::memory_order_relaxed), bytes),
                    std::memory_order_relaxed);
  }

 private:
  friend std::uint64_t amountPurged(const WorkingDictionary& working);

  Dictionary contents_;
  Dictionary request_;  // empty when the contents have changed since
  std::uint64_t request_amount_ = 0;
  std::atomic<std::uint64_t> reported_{0};
};

/// The bytes purged so far: all that was ever reported for this purge, the running pass included.
[[nodiscard]] inline std::uint64_t amountPurged(const WorkingDictionary& working) {
  return working.reported_.load(std::memory_order_relaxed);
}

}  // namespace kelvane
