#pragma once

// What a purge leaves in the journal: one entry for each root of which something went, or could not go.

#include <cstdint>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/workers.h"
#include "platform/host/journal.h"

namespace kelvane::caches {

/// Of the entries; the catalog (packaging/kelvane-caches.catalog) explains it.
inline constexpr const char* purge_message_id = "6d8db663cc6d6e9174a18d9cad86b547";

struct PurgeRequest {
  std::string volume;
  int urgency = 0;
  std::uint64_t amount = 0;  // asked of the holder as a whole
};

struct PurgeEntry {
  std::string message;
  JournalEntry journal;
};

/// Nothing for roots of which nothing is old enough: a volume that stays low is purged again and again, and
/// its journal must not fill it.
[[nodiscard]] std::vector<PurgeEntry> purgeEntries(const Definition& definition, const PurgeRequest& request,
                                                   const HolderReport& report);

/// How old what goes is at least, in seconds, as the workers compute it from the same surveys. 0 where there
/// is no root.
[[nodiscard]] std::int64_t cutAge(const HolderReport& report, const PurgeRequest& request);

/// "amount-freed", "nothing-left", "cancelled", "too-late" or "failed".
[[nodiscard]] const char* nameOf(client::CachePurge::End end);

}  // namespace kelvane::caches
