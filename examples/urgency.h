#pragma once

#include "kelvane/cache_rules.h"

namespace kelvane::examples {

/// Which files go at which urgency: at 1 those older than three quarters of `lifetime`, at 2 older than a
/// half, at 3 older than a quarter, at 4 all that are not younger than `youngest`.
[[nodiscard]] client::CacheRules rulesFor(std::chrono::seconds lifetime, std::chrono::seconds youngest);

}  // namespace kelvane::examples
