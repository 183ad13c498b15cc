#pragma once

// The users whose homes may hold caches: those that /etc/passwd lists. Users of a directory server are
// left out: a query could wait for the network, and their homes are mostly on network file systems.
//
// Users without a login shell count, because a locked account still has its data.

#include <string>
#include <vector>

#include "caches/job.h"

namespace kelvane::caches {

inline constexpr std::size_t most_users = 4096;
inline constexpr uid_t first_person = 1000;
inline constexpr uid_t last_person = 65533;

/// The users with IDs of people, sorted by ID, each ID once, at most most_users. Empty when the file cannot
/// be read.
[[nodiscard]] std::vector<User> usersIn(const std::string& passwd_file);
/// The user with this ID, which may be any. Without an entry, the group is `group` and the home is empty.
[[nodiscard]] User userIn(const std::string& passwd_file, uid_t id, gid_t group);

/// Why this path cannot be a user's home; empty when it can be.
[[nodiscard]] std::string faultOfHome(const std::string& home);

}  // namespace kelvane::caches
