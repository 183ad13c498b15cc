#pragma once

// Which volume holds a file or directory: for services that check whether a request concerns their data.
//
// The daemon names a volume by one mount point, even when the same file system is mounted in several places.
// A path below a bind mount, a second mount or a btrfs subvolume therefore belongs to a volume whose mount
// point need not be a prefix of the path. Do not compare paths; call these functions.
//
// Threads. Any. The mount table is read at each call, so an answer holds for that moment only: mounting or
// unmounting a file system changes it.

#include <string>

#include "kelvane/export.h"
#include "kelvane/result.h"

namespace kelvane::client {

/// The mount point under which the daemon knows the volume of the file or directory at `path`. Links are
/// followed. Fails with Failure::badRequest and a reason when the path does not exist, or when it is on a
/// file system that is not a volume of the daemon (read-only, network, virtual).
[[nodiscard]] KELVANE_EXPORT Result<std::string> volumeOf(const std::string& path);
/// The same for an open descriptor of any kind, including O_PATH. Names are not used, so renaming cannot
/// change the result between this call and the use of the descriptor.
[[nodiscard]] KELVANE_EXPORT Result<std::string> volumeOf(int descriptor);

/// Whether an open descriptor is on the volume that a request names, as `volumeOf` finds out. Also true when
/// a sandbox shows this process the volume read-only, or only a part of it at another mount point. False when
/// that cannot be found out.
[[nodiscard]] KELVANE_EXPORT bool isOnVolume(int descriptor, const std::string& volume);

}  // namespace kelvane::client
