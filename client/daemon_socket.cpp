#include "client/daemon_socket.h"

#include "platform/xpc/connection.h"
#include "support/paths.h"

namespace kelvane::client {

std::string daemonSocket(const std::string& chosen) {
  return chosen.empty() ? runtimeDirectory() + "/kelvane.sock" : chosen;
}

std::optional<uid_t> listenerOf(const std::string& socket_path) {
  const auto connection = xpc::Connection::initWithSocketPath(socket_path);
  if (!connection->credentials()) return std::nullopt;
  return connection->credentials()->uid;
}

}  // namespace kelvane::client
