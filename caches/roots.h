#pragma once

// From a root as a definition writes it to the directories that it stands for: "~" and variables, and "*" in
// names. Nothing is followed: each name is opened in the directory before it, without links, and below a home
// without entering a mount. What a name leads to later does not matter: the descriptor stays.

#include <string>
#include <vector>

#include "caches/job.h"
#include "caches/mounts.h"

namespace kelvane::caches {

inline constexpr std::size_t most_matches = 256;        // of one root as written
inline constexpr std::size_t most_names_read = 65'536;  // of one directory, for a wildcard
inline constexpr std::size_t most_root_names = 64;      // names in one root

/// Where roots of a holder begin.
struct Base {
  const Mounts& mounts;
  /// The user's home. Without a descriptor: none, roots are absolute.
  OpenedDirectory home;
  /// Whether roots are opened for reading. Otherwise only whose they are is found out.
  bool reading = true;
};

struct Root {
  std::string path;
  std::string wildcard;      // what the first "*" matched
  FileDescriptor directory;  // for reading; invalid: see the reason
  RootKey key;
  uid_t owner = 0;
  std::string reason;  // why nothing can be had of it
};

/// What one root stands for: nothing when there is no such directory.
[[nodiscard]] std::vector<Root> expandRoot(const Base& base, const std::string& written);

/// Of directories that are the same the first; those inside another one get a reason.
void leaveOutRepeated(std::vector<Root>& roots);

/// What the first "*" of the pattern matches of the name (as little as possible), or nothing. "*" is the only
/// special character.
[[nodiscard]] std::optional<std::string> wildcardMatch(std::string_view pattern, std::string_view name);

}  // namespace kelvane::caches
