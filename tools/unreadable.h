#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/checked_file.h"

namespace kelvane::tools {

/// Why bytes that are no property list are none: what they look like, and in XML the line where it breaks.
/// `reason` is what their reader said.
[[nodiscard]] Fault whyUnreadable(std::span<const std::uint8_t> bytes, const std::string& reason);

}  // namespace kelvane::tools
