#pragma once

#include <cstdint>
#include <functional>

namespace kelvane {

// Conditions of a volume in an event's "_Flags", in order of precedence: the first
// that is set is the event's.
inline constexpr std::uint64_t VQ_LOWDISK = 0x4;
inline constexpr std::uint64_t VQ_VERYLOWDISK = 0x200;
inline constexpr std::uint64_t VFS_QUOTA = 0x1000;

/// Posts an event of the file-system stream with that flag to this process's central object. Calls `ended`
/// when the purges are done, with the bytes that services reported for events in the meantime. Never
/// blocks.
void postVolumeEvent(std::uint64_t flag, const std::function<void(std::uint64_t bytes)>& ended);

}  // namespace kelvane
