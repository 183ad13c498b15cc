#pragma once

#include "client/cache_locks.h"
#include "client/cache_setup.h"
#include "client/newest_kept.h"
#include "client/open_files.h"

namespace kelvane::client {

struct CacheCount {
  CacheSurvey survey;
  CacheFloor floor;
};

/// One walk. Ages count from `now`. `open` is null unless open files stay.
[[nodiscard]] CacheCount countCache(const CacheSetup& setup, const CacheLocks& locks, OpenFiles* open,
                                    const CacheTime& time, std::int64_t now);

}  // namespace kelvane::client
