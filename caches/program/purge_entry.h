#pragma once

// The journal entries of a purge: one for each root in which it deleted something, failed or was cut short.

#include <cstdint>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/workers.h"
#include "platform/host/journal.h"

namespace kelvane::caches {

/// The message ID of the entries, which the catalog (packaging/kelvane-caches.catalog) explains.
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

/// No entry for a root in which nothing is old enough: a volume that stays low is purged again and again, and
/// must not be filled by the journal.
[[nodiscard]] std::vector<PurgeEntry> purgeEntries(const Definition& definition, const PurgeRequest& request,
                                                   const HolderReport& report);

/// The minimum age of what goes, in seconds, as the workers compute it from the same surveys. 0 without a
/// root.
[[nodiscard]] std::int64_t cutAge(const HolderReport& report, const PurgeRequest& request);

/// "amount-freed", "nothing-left", "cancelled", "too-late" or "failed".
[[nodiscard]] const char* nameOf(client::CachePurge::End end);

}  // namespace kelvane::caches
