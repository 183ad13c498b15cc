#include "support/service_record.h"

#include <utility>

namespace kelvane {

std::optional<std::set<std::string>> KVService::desiredNotifications() const {
  const std::lock_guard lock(mutex_);
  return desiredNotifications_;
}

bool KVService::desiresNotification(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return desiredNotifications_ && desiredNotifications_->contains(name);
}

void KVService::setDesiredNotifications(std::optional<std::set<std::string>> names) {
  const std::lock_guard lock(mutex_);
  desiredNotifications_ = std::move(names);
}

xpc::Endpoint KVService::endpoint() const {
  const std::lock_guard lock(mutex_);
  return endpoint_;
}

void KVService::setEndpoint(xpc::Endpoint endpoint) {
  const std::lock_guard lock(mutex_);
  std::swap(endpoint_, endpoint);  // the old one's descriptor closes after the lock is released
}

std::shared_ptr<xpc::Connection> KVService::xpcConn() const {
  const std::lock_guard lock(mutex_);
  return xpcConn_;
}

void KVService::setXpcConn(std::shared_ptr<xpc::Connection> connection) {
  const std::lock_guard lock(mutex_);
  std::swap(xpcConn_, connection);
}

}  // namespace kelvane
