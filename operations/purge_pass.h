#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "common/keys.h"
#include "kelvane/value.h"
#include "platform/dispatch/group.h"

namespace kelvane {

/// One pass of a purge: what its requests share, and what happened in it. It is open until its wait is over.
/// What comes after that belongs to no pass: it is not counted, not reported and not asked again.
class PurgePass {
 public:
  explicit PurgePass(std::int32_t urgency) : urgency_(urgency) {}

  [[nodiscard]] std::int32_t urgency() const { return urgency_; }
  /// Counts the requests that are queued, those that are sent until their connections have ended, and the
  /// replies that are not yet accounted for.
  [[nodiscard]] const dispatch_group_t& group() const { return group_; }

  // --- only on the operation's `message_queue`, as all that depends on it ---

  [[nodiscard]] bool isOpen() const { return is_open_; }
  void close() { is_open_ = false; }

  // --- only on the operation's `collection_queue` ---

  void set(std::string_view key, Value value) { info_.set(key, std::move(value)); }
  /// Replaces what the service reported earlier in this pass.
  void setReport(const std::string& identifier, std::uint64_t bytes) { reports_.set(identifier, bytes); }
  /// The operation-info dictionary, and its key in the result.
  [[nodiscard]] Dictionary operationInfo() const {
    Dictionary whole = info_;
    if (!reports_.empty()) whole.set(KELVANE_REPORTING_SERVICES, reports_);
    return whole;
  }
  [[nodiscard]] std::string key() const {
    return "KELVANE_URGENCY_" + std::to_string(urgency_) + "_OPERATION_INFO";
  }

 private:
  const std::int32_t urgency_;
  const dispatch_group_t group_ = dispatch_group_create();
  bool is_open_ = true;
  Dictionary info_;
  Dictionary reports_;  // apart, since it grows with every reply
};

}  // namespace kelvane
