#pragma once

#include <string>

namespace kelvane {

// The directories that the service manager names. Read from the environment at each call.

/// $RUNTIME_DIRECTORY, by default /run/kelvane.
[[nodiscard]] std::string runtimeDirectory();
/// $STATE_DIRECTORY, by default /var/lib/kelvane.
[[nodiscard]] std::string stateDirectory();
/// $CONFIGURATION_DIRECTORY, by default /etc/kelvane.
[[nodiscard]] std::string configurationDirectory();

/// The socket of a declared service, $RUNTIME_DIRECTORY/services/<ID>; empty when the ID cannot be a file
/// name.
[[nodiscard]] std::string declaredServiceSocket(const std::string& ID);

}  // namespace kelvane
