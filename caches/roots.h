#pragma once

// Expands a root of a definition ("~", variables, and "*" in names) to directories, and opens them. Each name
// is opened in the directory before it, without following a link, and below a home without entering a mount.
// Later changes of the names do not matter, because the descriptors stay.

#include <string>
#include <vector>

#include "caches/job.h"
#include "caches/mounts.h"

namespace kelvane::caches {

inline constexpr std::size_t most_matches = 256;        // of one root as written
inline constexpr std::size_t most_names_read = 65'536;  // of one directory, for a wildcard
inline constexpr std::size_t most_root_names = 64;      // names in one root

/// Where the roots of a holder start.
struct Base {
  const Mounts& mounts;
  /// The user's home. Without a descriptor, roots are absolute.
  OpenedDirectory home;
  /// Whether roots are opened for reading; otherwise only their owners are found out.
  bool reading = true;
};

struct Root {
  std::string path;
  std::string wildcard;      // what the first "*" matched
  FileDescriptor directory;  // for reading; invalid: see the reason
  RootKey key;
  uid_t owner = 0;
  std::string reason;  // why it cannot be used
};

/// The directories of one root; empty when none exists.
[[nodiscard]] std::vector<Root> expandRoot(const Base& base, const std::string& written);

/// Keeps the first of roots that are the same directory; roots inside another one get a reason.
void leaveOutRepeated(std::vector<Root>& roots);

/// The shortest part of the name that the first "*" of the pattern can match, or nothing. "*" is the only
/// special character.
[[nodiscard]] std::optional<std::string> wildcardMatch(std::string_view pattern, std::string_view name);

}  // namespace kelvane::caches
