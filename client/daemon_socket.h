#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

namespace kelvane::client {

/// `chosen`, or the standard path when that is empty.
[[nodiscard]] std::string daemonSocket(const std::string& chosen);

/// The user of the process that listens on the socket; nothing when nobody does. Connects and hangs up.
[[nodiscard]] std::optional<uid_t> listenerOf(const std::string& socket_path);

}  // namespace kelvane::client
