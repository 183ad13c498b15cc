#pragma once

// All definitions of a machine: the shipped ones, and the administrator's, which replace, mask and enable
// them.
//
//   /usr/lib/kelvane/caches.d/NAME.toml   shipped
//   /etc/kelvane/caches.d/NAME.toml       replaces the shipped one of this name, or adds one; a link to
//                                         /dev/null masks it
//   /etc/kelvane/caches.d/NAME.enabled    an empty file: enables a holder of the class "personal"
//
// An invalid file disables its own holder only, and is reported in `problems`. If it replaces a shipped
// definition, that one is not used instead: a typing error must not bring back rules that the administrator
// replaced.
//
// Threads. Any. Nothing is thrown.

#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/definition_reader.h"

namespace kelvane::caches {

inline constexpr std::size_t most_definitions = 256;  // files of a directory

struct DefinitionStore {
  std::vector<Definition> definitions;  // sorted by name, including those that are not enabled
  std::vector<std::string> masked;      // names
  std::vector<Problem> problems;
};

struct DefinitionDirectories {
  std::string shipped;
  std::string own;
};

/// /usr/lib/kelvane/caches.d, and caches.d in the daemon's configuration directory.
[[nodiscard]] DefinitionDirectories definitionDirectories();

/// A missing directory counts as empty. Both, and their files, must be owned by root or this process's user,
/// and writable by nobody else.
[[nodiscard]] DefinitionStore readDefinitions(const DefinitionDirectories& directories);

}  // namespace kelvane::caches
