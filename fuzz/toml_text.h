#pragma once

#include <string>

#include "caches/definition.h"

namespace kelvane::fuzz {

/// A file that says what the definition says.
[[nodiscard]] std::string tomlText(const caches::Definition& definition);

}  // namespace kelvane::fuzz
