#pragma once

#include <string>

namespace kelvane::wire {

/// 32 hexadecimal digits from the kernel's random numbers, different at each call. Ends the process when the
/// kernel gives none: D-Bus wants an identifier that no other server has.
[[nodiscard]] std::string makeServerIdentifier();

/// This process's own, the same as long as it lives. Any thread.
[[nodiscard]] const std::string& serverIdentifier();

}  // namespace kelvane::wire
