#pragma once

// Makes a definition from the TOML tree of its file.

#include "caches/definition.h"
#include "caches/problems.h"

namespace kelvane::caches {

/// Fills a definition; invalid values are left out and added to the problems.
[[nodiscard]] Definition definitionOf(const TomlValue::Table& root, Problems& problems);

}  // namespace kelvane::caches
