#pragma once

// The users whose homes may hold caches: those that /etc/passwd lists. Users of a directory server are not
// among them: asking one could wait for the network, and their homes are mostly mounted from it.
//
// A user without a login shell counts, because a locked account still has its data.

#include <string>
#include <vector>

#include "caches/job.h"

namespace kelvane::caches {

inline constexpr std::size_t most_users = 4096;
inline constexpr uid_t first_person = 1000;
inline constexpr uid_t last_person = 65533;

/// Those whose ID is a person's, by ID, each ID once, at most most_users. Empty when the file cannot be read.
[[nodiscard]] std::vector<User> usersIn(const std::string& passwd_file);
/// The user with this ID, whatever it is. Without an entry the group is `group` and the home is empty.
[[nodiscard]] User userIn(const std::string& passwd_file, uid_t id, gid_t group);

/// Why nothing can be in this home, as far as its name says; empty when it may be looked at.
[[nodiscard]] std::string faultOfHome(const std::string& home);

}  // namespace kelvane::caches
