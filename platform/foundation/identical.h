#pragma once

#include "kelvane/value.h"

namespace kelvane::foundation {

/// Whether two values are the same down to the kinds of their numbers: 1, 1.0 and true are equal but not
/// identical. Values that share what they hold are compared at once.
[[nodiscard]] bool identical(const Value& a, const Value& b);

}  // namespace kelvane::foundation
