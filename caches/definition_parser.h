#pragma once

// From the tree of a definition's file to the definition.

#include "caches/definition.h"
#include "caches/problems.h"

namespace kelvane::caches {

/// Fills a definition; what cannot be taken is left out and added to the problems.
[[nodiscard]] Definition definitionOf(const TomlValue::Table& root, Problems& problems);

}  // namespace kelvane::caches
