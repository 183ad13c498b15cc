#pragma once

// One system call each, on a connected local stream socket, with descriptors. They never block, whatever the
// socket's flags are: a peer that created the socket pair may have kept a copy of this end, and can then
// change its flags and options at any time.

#include <cstddef>
#include <span>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::wire {

struct ReadResult {
  std::size_t bytes = 0;   // 0 and no error: the peer closed
  int error = 0;           // errno; EAGAIN: nothing to read
  bool dropped = false;    // MSG_CTRUNC: the kernel had no room for descriptors, or could not install them
  bool unasked = false;    // other control data came: somebody changed the socket's options
  std::size_t passed = 0;  // descriptors that were received and appended
};

/// Appends at most `most_descriptors`, set to close on exec. With 0 the kernel drops all of them.
ReadResult readSocket(int socket, std::span<std::byte> room, std::size_t most_descriptors,
                      std::vector<FileDescriptor>& descriptors);

struct WriteResult {
  std::size_t bytes = 0;
  int error = 0;  // errno; EAGAIN: no room
};

/// Descriptors are sent with the first byte.
WriteResult writeSocket(int socket, std::span<const std::span<const std::byte>> parts,
                        std::span<const int> descriptors);

}  // namespace kelvane::wire
