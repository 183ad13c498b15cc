#pragma once

#include <string>

namespace kelvane::wire {

/// 32 random hexadecimal digits, different at each call. Ends the process if the kernel provides no random
/// numbers: D-Bus requires an identifier that no other server has.
[[nodiscard]] std::string makeServerIdentifier();

/// This process's identifier, constant while it runs. Any thread.
[[nodiscard]] const std::string& serverIdentifier();

}  // namespace kelvane::wire
