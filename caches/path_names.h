#pragma once

// Paths as lists of names, and patterns over them. Bytes, not characters: paths need not be UTF-8.

#include <string>
#include <string_view>
#include <vector>

namespace kelvane::caches {

using Names = std::vector<std::string>;

/// The names of a path; empty ones are kept, so that "a//b" and "a/" can be detected.
[[nodiscard]] Names namesOf(std::string_view path);
[[nodiscard]] std::string pathOf(Names::const_iterator begin, Names::const_iterator end);

/// Whether it contains "*", "?" or "[".
[[nodiscard]] bool hasWildcard(std::string_view name);
/// As glob(7) for one name; a leading dot needs no dot in the pattern.
[[nodiscard]] bool nameMatches(const std::string& pattern, const std::string& name);
/// Whether the first names match the patterns, one by one.
[[nodiscard]] bool beginsWith(const Names& names, const Names& patterns);
/// Whether no name of the pattern restricts anything: "*", "**", "**/*", "?*", "[!x]*".
[[nodiscard]] bool isAllWildcards(std::string_view pattern);

}  // namespace kelvane::caches
