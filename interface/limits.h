#pragma once

// Limits on what the daemon stores for one user, in addition to the costs of connections and calls
// (platform/wire/account.h). docs/limits.md has the reasons. Sizes of values are footprints
// (platform/foundation/footprint.h), in bytes.

#include <cstddef>
#include <cstdint>

namespace kelvane {

inline constexpr std::size_t longest_service_ID = 255;  // as for a file name
/// The names of the notifications that one service wants.
inline constexpr std::size_t largest_wishes = std::size_t{16} << 10;
/// One value of the state, with its key.
inline constexpr std::size_t largest_state_entry = std::size_t{1} << 20;
/// The whole state. A privileged user can still write after ordinary users have filled it.
inline constexpr std::size_t largest_state = std::size_t{16} << 20;
inline constexpr std::size_t largest_privileged_state = std::size_t{20} << 20;

/// The room that the state reserves on its volume. The log holds what is written between two checkpoints, and
/// the largest value twice, since the value that it replaces is overwritten.
inline constexpr std::int64_t state_file_room = std::int64_t{32} << 20;
inline constexpr std::int64_t state_log_room = std::int64_t{8} << 20;

/// Values up to this size are answered on the state's queue; larger ones would delay other users.
inline constexpr std::size_t small_answer = std::size_t{16} << 10;

}  // namespace kelvane
