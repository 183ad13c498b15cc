#pragma once

// Messages and sockets exchanged with a service manager: the protocols of sd_notify(3),
// sd_watchdog_enabled(3) and sd_listen_fds(3). Without a service manager, or if its environment variables are
// malformed, every function here returns false or nothing. Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

/// Tells the service manager that the process is ready. False if there is no service manager, or it did not
/// take the message. Waits at most five seconds for a busy service manager.
bool notifyReady();
/// Sets the status line shown by `systemctl status`. Line breaks become spaces. Does not wait; false as
/// above.
bool notifyStatus(std::string_view text);

/// For how many microseconds the service manager waits for a sign of life of this process before it starts
/// another one; nothing when it does not wait for any.
[[nodiscard]] std::optional<std::uint64_t> serviceManagerPatience();
/// Sends that sign of life. Does not wait; false as above.
bool notifyAlive();

/// The names of the descriptors that socket activation handed over, in their order, including those that were
/// taken. A descriptor without a name is called "unknown".
[[nodiscard]] std::vector<std::string> passedSocketNames();
/// The descriptor that socket activation handed over under that name; empty when there is none. Each is given
/// away once, the first of several of one name first, and closes on execution.
[[nodiscard]] FileDescriptor takePassedSocket(const std::string& name);

}  // namespace kelvane
