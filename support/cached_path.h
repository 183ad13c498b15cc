#pragma once

// Paths without waiting: what the kernel knows about a path without asking a file system. So a file system
// that hangs, even one mounted a moment ago, cannot block the caller.

#include <sys/types.h>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

/// Opens a path with O_PATH, provided that the kernel has all of it in memory, as it has of every mount
/// point. Empty, with errno, otherwise.
[[nodiscard]] FileDescriptor openCached(const std::string& path);

struct CachedIdentity {
  std::uint64_t mount;  // the kernel's mount ID, as in MountEntry
  mode_t mode;          // as the kernel remembers it
};
/// Nothing if the kernel does not report them.
[[nodiscard]] std::optional<CachedIdentity> cachedIdentity(int descriptor);

}  // namespace kelvane
