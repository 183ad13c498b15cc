#pragma once

#include <cstdint>

namespace kelvane::client {

/// Whether files of this directory's file system can share blocks (btrfs, xfs).
[[nodiscard]] bool canShareExtents(int directory);

/// Bytes of an open file in extents that other files may share, or whose size on the volume differs from that
/// in the file: deleting the file frees an unknown part of them. 0 when the file system does not tell them.
[[nodiscard]] std::uint64_t sharedBytes(int file);

}  // namespace kelvane::client
