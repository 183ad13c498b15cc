#pragma once

#include "kelvane/cache_rules.h"

namespace kelvane::examples {

/// What is given up at which urgency: at 1 what is older than three quarters of `lifetime`, at 2 than a half,
/// at 3 than a quarter, at 4 everything that is not younger than `youngest`.
[[nodiscard]] client::CacheRules rulesFor(std::chrono::seconds lifetime, std::chrono::seconds youngest);

}  // namespace kelvane::examples
