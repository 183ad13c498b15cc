#pragma once

#include <sys/types.h>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::xpc {

/// Creates the socket, replacing a dead one of the same name. Empty, with the reason, on failure.
[[nodiscard]] FileDescriptor listenAt(const std::string& path, mode_t mode, std::string& reason);

/// Takes over a socket that another process opened. False if it is not a listening local stream socket.
[[nodiscard]] bool takeOverListening(int socket);

}  // namespace kelvane::xpc
