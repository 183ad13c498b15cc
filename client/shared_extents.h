#pragma once

#include <cstdint>

namespace kelvane::client {

/// Whether files of this directory's file system can have blocks in common (btrfs, xfs).
[[nodiscard]] bool canShareExtents(int directory);

/// Bytes of an open file that lie in extents which other files may have as well, or whose size on the volume
/// is not their size in the file: those of which deleting the file frees an unknown part. 0 where the file
/// system does not tell.
[[nodiscard]] std::uint64_t sharedBytes(int file);

}  // namespace kelvane::client
