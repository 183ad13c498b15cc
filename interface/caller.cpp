#include "interface/caller.h"

#include <unistd.h>

#include "platform/xpc/connection.h"
#include "support/entitlements.h"
#include "support/log.h"

namespace kelvane {

bool callerIsEntitled(const char* entitlement, const char* selector) {
  const auto connection = xpc::Connection::current();
  if (connection != nullptr && connectionIsEntitled(*connection, {entitlement})) return true;
  KVLog(3, "%s Connection is not entitled!", selector);
  return false;
}

uid_t callingUser() {
  const auto connection = xpc::Connection::current();
  return connection != nullptr && connection->credentials() ? connection->credentials()->uid : ::geteuid();
}

}  // namespace kelvane
