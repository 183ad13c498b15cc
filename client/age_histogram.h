#pragma once

#include <cstddef>
#include <cstdint>

#include "kelvane/cache_directory.h"

namespace kelvane::client {

/// The bucket of an age in seconds; times in the future have the age 0.
[[nodiscard]] std::size_t ageBucket(std::int64_t age);
/// The smallest age of a bucket.
[[nodiscard]] std::int64_t youngestOf(std::size_t bucket);

}  // namespace kelvane::client
