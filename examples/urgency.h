#pragma once

#include <cstdint>

namespace kelvane::examples {

/// Seconds since 1970.
using Seconds = std::int64_t;

/// Up to when a file must have been changed last to be given up at `urgency`: at 1 it is older than three
/// quarters of `lifetime` (seconds), at 2 than a half, at 3 than a quarter; at 4 every file goes.
[[nodiscard]] Seconds givenUpAt(int urgency, Seconds now, Seconds lifetime);

}  // namespace kelvane::examples
