#pragma once

#include "kelvane/value.h"

namespace kelvane {

/// A new purge token: a random 128-bit number as a string of hexadecimal digits.
[[nodiscard]] Value createKelvaneToken();

}  // namespace kelvane
