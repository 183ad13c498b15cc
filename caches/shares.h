#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/cache_directory.h"

namespace kelvane::caches {

/// What each of several directories is to free of an amount, and down to which age.
struct Shares {
  client::AgeCut cut;
  std::vector<std::uint64_t> amounts;  // as the surveys; their sum is at most the amount
};

/// The oldest go first, wherever they are: what is older than the last bucket of the age histogram goes
/// whole, and of the last bucket each gives the same part. The surveys have the same rules and the same
/// moment.
[[nodiscard]] Shares shareOut(const std::vector<const client::CacheSurvey*>& surveys, int urgency,
                              std::uint64_t amount);

}  // namespace kelvane::caches
