#pragma once

#include "client/cache_removal.h"
#include "client/hard_links.h"

namespace kelvane::client {

struct LinkedRemovalParts {
  const CacheSetup& setup;
  const CacheLocks& locks;
  OpenFiles* open;
  const RemovalTerms& terms;
  const CacheItemSink* sink;
  CacheProgress& progress;
};

/// Deletes files with several names whose names may all go: one file after the other, each with all its
/// names, so that no name goes without freeing its file. Further walks find the names, as many at a time as
/// memory allows.
void removeLinked(const LinkedRemovalParts& parts, HardLinks& links);

}  // namespace kelvane::client
