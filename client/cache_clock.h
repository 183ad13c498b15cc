#pragma once

#include <cstdint>

namespace kelvane::client {

/// Seconds since 1970, from which ages are computed.
[[nodiscard]] std::int64_t cacheTime();

/// For tests, which cannot make old files in another way: the time of a status change cannot be set.
void advanceCacheTime(std::int64_t seconds);

}  // namespace kelvane::client
