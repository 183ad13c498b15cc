#pragma once

// Paths without waiting: what the kernel can say of a path without asking any file system, so that one that
// hangs, or that somebody mounts in the very moment, holds nobody up.

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
/// Nothing where the kernel does not say.
[[nodiscard]] std::optional<CachedIdentity> cachedIdentity(int descriptor);

}  // namespace kelvane
