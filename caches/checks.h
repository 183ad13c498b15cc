#pragma once

// Checks of the texts in a definition. Each returns why the text is invalid, or nothing. The reasons name
// neither the file nor the text.

#include <chrono>
#include <optional>
#include <string>

#include "caches/definition.h"
#include "caches/problems.h"

namespace kelvane::caches {

using Objection = std::optional<std::string>;

[[nodiscard]] Objection objectionToName(const std::string& name);
[[nodiscard]] Objection objectionToSummary(const std::string& summary);
/// How a root is written; safety.h decides whether it is allowed there.
[[nodiscard]] Objection objectionToRoot(const std::string& root);
/// A pattern for paths relative to the root.
[[nodiscard]] Objection objectionToPattern(const std::string& pattern);
[[nodiscard]] Objection objectionToInclude(const std::string& pattern, Kind kind);
/// A name of a file, without "/".
[[nodiscard]] Objection objectionToFileName(const std::string& name);
[[nodiscard]] Objection objectionToProcess(const std::string& name);
/// A path of a lock: absolute, below "~", or relative.
[[nodiscard]] Objection objectionToLockPath(const std::string& path, Owner owner);

/// An age of an urgency, such as "30d"; nothing, and a problem, when it is invalid.
[[nodiscard]] std::optional<std::chrono::seconds> checkedAge(Problems& problems, const TomlEntry& entry,
                                                             const std::string& where);

}  // namespace kelvane::caches
