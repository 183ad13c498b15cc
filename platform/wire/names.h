#pragma once

// Rules for names. Source: D-Bus, chapters "Valid Names" and "Valid Object Paths".

#include <string_view>

namespace kelvane::wire {

[[nodiscard]] bool isObjectPath(std::string_view path);
[[nodiscard]] bool isInterfaceName(std::string_view name);
/// Error names follow the same rule.
[[nodiscard]] inline bool isErrorName(std::string_view name) { return isInterfaceName(name); }
[[nodiscard]] bool isMemberName(std::string_view name);
/// Unique (":1.42") or well-known.
[[nodiscard]] bool isBusName(std::string_view name);

}  // namespace kelvane::wire
