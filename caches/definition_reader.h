#pragma once

// Reads the definition of one holder from TOML (kelvane-caches.d(5)).
//
// Threads. Any. Nothing is thrown.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "caches/definition.h"

namespace kelvane::caches {

inline constexpr std::size_t largest_definition = std::size_t{64} << 10;  // bytes of a file
inline constexpr std::size_t most_problems = 20;                          // reported for a file

/// An error in a file, with its line.
struct Problem {
  std::string file;
  std::size_t line = 0;  // from 1; 0: the file as a whole
  std::string reason;
  [[nodiscard]] std::string text() const;  // FILE:LINE: REASON
};

struct DefinitionResult {
  std::optional<Definition> definition;  // only when nothing is wrong
  std::vector<Problem> problems;
};

/// `file` is named in problems and in the definition, and is not opened.
[[nodiscard]] DefinitionResult parseDefinition(std::string_view text, const std::string& file);

/// Reads the file at `path`, which must be a regular file of root's or of this process's user that nobody
/// else can write; links are not followed. At most largest_definition bytes are read.
[[nodiscard]] DefinitionResult readDefinition(const std::string& path);
/// The same for the file `name` in an open directory; problems name it as `path`.
[[nodiscard]] DefinitionResult readDefinitionAt(int directory, const std::string& name,
                                                const std::string& path);

}  // namespace kelvane::caches
