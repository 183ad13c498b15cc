#pragma once

// What a service manager gives a process and hears from it, by the protocols of sd_notify(3),
// sd_watchdog_enabled(3) and sd_listen_fds(3). Without a service manager, and where its environment variables
// are malformed, everything here answers "none". Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

/// Tells the service manager that start-up is over. False when nobody asked to be told, or it did not take
/// the message. Waits for a service manager that is busy for at most five seconds.
bool notifyReady();
/// A line for people about what the process does, shown by `systemctl status`. Line breaks become spaces.
/// Does not wait; false as above.
bool notifyStatus(std::string_view text);

/// For how many microseconds the service manager waits for a sign of life of this process before it starts
/// another one; nothing when it does not wait for any.
[[nodiscard]] std::optional<std::uint64_t> serviceManagerPatience();
/// That sign. Does not wait; false as above.
bool notifyAlive();

/// The names of the descriptors that socket activation handed over, in their order, including those that were
/// taken. One that the service manager did not name is "unknown".
[[nodiscard]] std::vector<std::string> passedSocketNames();
/// The descriptor that socket activation handed over under that name; empty when there is none. Each is given
/// away once, the first of several of one name first, and closes on execution.
[[nodiscard]] FileDescriptor takePassedSocket(const std::string& name);

}  // namespace kelvane
