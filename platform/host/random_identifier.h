#pragma once

#include <string>

namespace kelvane {

/// A random 128-bit number as 32 lower-case hexadecimal digits. Any thread.
[[nodiscard]] std::string randomIdentifier();

}  // namespace kelvane
