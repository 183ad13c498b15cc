#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "common/keys.h"
#include "kelvane/value.h"
#include "platform/dispatch/group.h"

namespace kelvane {

/// One pass of a purge: the state that its requests share, and their results. It is open until its wait is
/// over. A later reply belongs to no pass: it is not counted or reported, and leads to no further request.
class PurgePass {
 public:
  explicit PurgePass(std::int32_t urgency) : urgency_(urgency) {}

  [[nodiscard]] std::int32_t urgency() const { return urgency_; }
  /// Counts queued requests, sent requests until their connections have ended, and
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
  Dictionary reports_;  // separate, since it grows with every reply
};

}  // namespace kelvane
