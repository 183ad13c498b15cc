#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/wire/account.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/endpoint.h"
#include "support/notification_outbox.h"

namespace kelvane {

/// The record of one registered service. Snapshots of the registry share the records, and a check-in changes
/// the flags of a record that operations are reading, so each member is safe on any thread by itself.
class KVService {
 public:
  explicit KVService(std::string ID) : ID_(std::move(ID)) {}

  [[nodiscard]] const std::string& ID() const { return ID_; }

  [[nodiscard]] bool doesPurge() const { return doesPurge_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool doesPeriodic() const { return doesPeriodic_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool doNotQuery() const { return doNotQuery_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool noQuota() const { return noQuota_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool multiUserOnly() const { return multiUserOnly_.load(std::memory_order_relaxed); }
  void setDoesPurge(bool does) { doesPurge_.store(does, std::memory_order_relaxed); }
  void setDoesPeriodic(bool does) { doesPeriodic_.store(does, std::memory_order_relaxed); }
  void setDoNotQuery(bool doNot) { doNotQuery_.store(doNot, std::memory_order_relaxed); }
  void setNoQuota(bool noQuota) { noQuota_.store(noQuota, std::memory_order_relaxed); }
  void setMultiUserOnly(bool only) { multiUserOnly_.store(only, std::memory_order_relaxed); }

  /// Nothing when the service never said which notifications it wants.
  [[nodiscard]] std::optional<std::set<std::string>> desiredNotifications() const;
  [[nodiscard]] bool desiresNotification(const std::string& name) const;
  void setDesiredNotifications(std::optional<std::set<std::string>> names);

  /// Empty for a service that was declared by a descriptor.
  [[nodiscard]] xpc::Endpoint endpoint() const;
  void setEndpoint(xpc::Endpoint endpoint);
  [[nodiscard]] std::shared_ptr<xpc::Connection> xpcConn() const;
  void setXpcConn(std::shared_ptr<xpc::Connection> connection);

  [[nodiscard]] NotificationOutbox& notifications() { return notifications_; }
  /// Sets the charge to its user, held as long as the record exists. Call before sharing the record.
  void setCost(wire::Charge cost) { cost_ = std::move(cost); }

 private:
  const std::string ID_;
  wire::Charge cost_;
  NotificationOutbox notifications_;
  std::atomic<bool> doesPurge_{false};
  std::atomic<bool> doesPeriodic_{false};
  std::atomic<bool> doNotQuery_{false};
  std::atomic<bool> noQuota_{false};
  std::atomic<bool> multiUserOnly_{false};

  mutable std::mutex mutex_;  // guards all below
  std::optional<std::set<std::string>> desiredNotifications_;
  xpc::Endpoint endpoint_;
  std::shared_ptr<xpc::Connection> xpcConn_;
};

}  // namespace kelvane
