#pragma once

#include <cstdint>
#include <vector>

#include "kelvane/cache_directory.h"

namespace kelvane::caches {

/// How much of an amount each of several directories is to free, and down to which age.
struct Shares {
  client::AgeCut cut;
  std::vector<std::uint64_t> amounts;  // in the order of the surveys; their sum is at most the amount
};

/// The oldest go first, in whichever directory they are: everything older than the last bucket of the age
/// histogram goes, and of the last bucket each directory gives the same part. The surveys must have the same
/// rules and moment.
[[nodiscard]] Shares shareOut(const std::vector<const client::CacheSurvey*>& surveys, int urgency,
                              std::uint64_t amount);

}  // namespace kelvane::caches
