#pragma once

// The restrictions of the service's unit: few capabilities, no new privileges, and system calls that fail
// with EPERM.

#include <string>

namespace kelvane::caches::tests {

enum class Capset { allowed, refused };

/// Restricts the calling process for good. Returns what failed.
[[nodiscard]] std::string enterSandbox(Capset capset);

}  // namespace kelvane::caches::tests
