#pragma once

// Where caches may be. Definitions are data and can be wrong, so code decides what no definition can reach.
//
// Two lists decide, and both must agree. The allow-list names the places that hold caches: /var/cache/NAME,
// ~/.cache/NAME, the directories of known tools, and within ~/.config and ~/.local/share only directories
// that bear a known cache's name. The forbidden list names what holds data of people wherever it is:
// documents, profiles, keys, mail, repositories, volumes of containers.
//
// Both are checked twice: for a root as written, when a definition is read, and for the resolved root, by the
// worker that is about to use it.
//
// Threads. Any; there is no state.

#include <optional>
#include <string>
#include <vector>

#include "caches/definition.h"

namespace kelvane::caches {

/// Why this definition must not delete anything below `path`; nothing when it may. `path` is a resolved root:
/// absolute, without links, "." and "..". `home` is the resolved home directory of the user;
/// system holders need none. `personal` are the directories that the user's desktop keeps documents in,
/// as personalDirectories finds them.
[[nodiscard]] std::optional<std::string> refusal(const std::string& path, const Definition& definition,
                                                 const std::string& home,
                                                 const std::vector<std::string>& personal = {});

/// The same for a root as a definition writes it, with "~", variables and wildcards.
[[nodiscard]] std::optional<std::string> refusalAsWritten(const std::string& root,
                                                          const Definition& definition);

/// Exclude patterns for what must stay below this allowed root, to be added to its rules. Paths as for
/// refusal.
[[nodiscard]] std::vector<std::string> protectedBelow(const std::string& path, const Definition& definition,
                                                      const std::string& home);

/// The directories that ~/.config/user-dirs.dirs names (Documents, Pictures, ... in the user's language),
/// below `home`, whose descriptor is `home_directory`. To be called as the user.
[[nodiscard]] std::vector<std::string> personalDirectories(int home_directory, const std::string& home);

/// The default of a variable that roots may begin with ("XDG_CACHE_HOME": "~/.cache"), written with "~";
/// nothing when it is not one of them.
[[nodiscard]] std::optional<std::string> variableDefault(const std::string& name);

}  // namespace kelvane::caches
