#pragma once

// What the service manager and the journal give a process, apart from messages. Without a service manager
// everything here answers "none". Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

/// Tells the service manager that start-up is over. False when nobody asked to be told.
bool notifyReady();

/// For how many microseconds the service manager waits for a sign of life of this process before it starts
/// another one; nothing when it does not wait for any.
[[nodiscard]] std::optional<std::uint64_t> serviceManagerPatience();
/// That sign. False when nobody asked for it.
bool notifyAlive();

/// The names of the descriptors that socket activation handed over, in their order, including those that were
/// taken.
[[nodiscard]] std::vector<std::string> passedSocketNames();
/// The descriptor that socket activation handed over under that name; empty when there is none. Each is given
/// away once, the first of several of one name first, and closes on execution.
[[nodiscard]] FileDescriptor takePassedSocket(const std::string& name);

/// A random 128-bit number as 32 hexadecimal digits.
[[nodiscard]] std::string randomIdentifier();

inline constexpr const char* journal_socket_path = "/run/systemd/journal/socket";

/// Whether the descriptor is the stream of which `journal_stream` ("device:inode", as in $JOURNAL_STREAM; may
/// be null) says that the journal reads it, and the journal's own socket is there to be written to.
[[nodiscard]] bool isJournalStream(int descriptor, const char* journal_stream,
                                   const std::string& journal_socket = journal_socket_path);

/// Syslog's priorities, as far as they are used here.
enum class JournalPriority { warning = 4, debug = 7 };

/// One entry of the journal. `level` is the writer's own, kept in the field KELVANE_LEVEL. False when the
/// journal did not take it.
bool sendToJournal(JournalPriority priority, int level, const std::string& identifier,
                   std::string_view message);

}  // namespace kelvane
