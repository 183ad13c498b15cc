#pragma once

// Which volume holds a file or directory: the answer to "does this request concern my data?".
//
// The daemon names a volume by one mount point, even when the same file system is mounted in several places.
// A path below a bind mount, a second mount or a btrfs subvolume therefore belongs to a volume whose mount
// point need not be a prefix of the path. Never compare paths; ask here.
//
// Threads. Any. The mount table is read at each call, so an answer is true at that moment only: what is
// mounted or unmounted afterwards changes it.

#include <string>

#include "kelvane/export.h"
#include "kelvane/result.h"

namespace kelvane::client {

/// The mount point under which the daemon knows the volume of the file or directory at `path`. Links are
/// followed. Fails with Failure::badRequest and a reason when there is no such path, or when what holds it is
/// not a volume that the daemon serves (read-only, network, virtual).
[[nodiscard]] KELVANE_EXPORT Result<std::string> volumeOf(const std::string& path);
/// The same for an open descriptor of any kind, O_PATH included. Independent of names, so nobody can rename
/// anything between this and the use of the descriptor.
[[nodiscard]] KELVANE_EXPORT Result<std::string> volumeOf(int descriptor);

/// Whether what is open is on the volume that a request names, as `volumeOf` finds out. True also where this
/// process sees the volume otherwise than the daemon does: a sandbox may make it read-only, and show a part
/// of it at another mount point. False for whatever cannot be asked.
[[nodiscard]] KELVANE_EXPORT bool isOnVolume(int descriptor, const std::string& volume);

}  // namespace kelvane::client
