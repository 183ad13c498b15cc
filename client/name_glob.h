#pragma once

#include <string_view>

namespace kelvane::client {

/// Whether a name matches: "*", "?", "[...]" and "\" as in glob(7), byte by byte; a leading dot is like any
/// other byte. Takes time at most proportional to the product of both lengths.
[[nodiscard]] bool nameMatches(std::string_view glob, std::string_view name);

/// Why the pattern is invalid; empty when it is valid.
[[nodiscard]] std::string_view problemInGlob(std::string_view glob);

}  // namespace kelvane::client
