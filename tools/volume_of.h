#pragma once

#include <optional>
#include <string>

namespace kelvane::tools {

/// The volume that holds the file or folder, whatever links lead there; a Problem (usage) when there is no
/// such path, or when what holds it is no volume that the daemon serves.
[[nodiscard]] std::string volumeOf(const std::string& path);

}  // namespace kelvane::tools
