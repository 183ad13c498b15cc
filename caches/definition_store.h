#pragma once

// All definitions of a machine: those that are shipped, as the administrator's replace, mask and enable them.
//
//   /usr/lib/kelvane/caches.d/NAME.toml   shipped
//   /etc/kelvane/caches.d/NAME.toml       replaces the shipped one of this name, or adds one of the machine's
//   own;
//                                         a link to /dev/null masks it
//   /etc/kelvane/caches.d/NAME.enabled    an empty file: a holder of the class "personal" is switched on
//
// A file that is wrong costs its own holder only, and is told in `problems`. One that was to replace a
// shipped definition and is wrong leaves that holder out: what the administrator did not want does not come
// back because of a typing error.
//
// Threads. Any. Nothing is thrown.

#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/definition_reader.h"

namespace kelvane::caches {

inline constexpr std::size_t most_definitions = 256;  // files of a directory

struct DefinitionStore {
  std::vector<Definition> definitions;  // sorted by name; those that are not enabled as well
  std::vector<std::string> masked;      // names
  std::vector<Problem> problems;
};

struct DefinitionDirectories {
  std::string shipped;
  std::string own;
};

/// /usr/lib/kelvane/caches.d, and caches.d in the daemon's configuration directory.
[[nodiscard]] DefinitionDirectories definitionDirectories();

/// A directory that is not there holds nothing. Both, and their files, must be root's or this process's
/// user's, and writable by nobody else.
[[nodiscard]] DefinitionStore readDefinitions(const DefinitionDirectories& directories);

}  // namespace kelvane::caches
