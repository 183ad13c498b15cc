#pragma once

#include <cstdint>

namespace kelvane::client {

/// Seconds since 1970, by which ages are reckoned.
[[nodiscard]] std::int64_t cacheTime();

/// Tests have no other way to old files: the time of a status change cannot be set.
void advanceCacheTime(std::int64_t seconds);

}  // namespace kelvane::client
