#pragma once

#include <functional>

#include "client/cache_progress.h"
#include "client/cache_setup.h"
#include "client/newest_kept.h"
#include "client/open_files.h"

namespace kelvane::client {

/// Which files a removal may delete.
struct RemovalTerms {
  std::int64_t newest = no_time;
  std::int64_t newest_leftover = no_time;
  CacheFloor floor;
};

using CacheItemSink = std::function<bool(const CacheItem&)>;

/// Deletes what may go, or, with a sink, only names it.
void removeFromCache(const CacheSetup& setup, const CacheLocks& locks, OpenFiles* open,
                     const RemovalTerms& terms, const CacheItemSink* sink, CacheProgress& progress);

}  // namespace kelvane::client
