#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/export.h"
#include "kelvane/value.h"

namespace kelvane::client {

/// One pass over the services, at one urgency.
struct PurgePass {
  int urgency = 0;
  std::map<std::string, std::uint64_t> freed;     // service ID to the bytes of its last answer in this pass
  std::vector<std::string> unanswered;            // those still at work when the wait was over
  std::optional<std::uint64_t> timeout_seconds;   // how long the wait was, when it was not long enough
  std::optional<std::uint64_t> freed_before_end;  // bytes freed from the purge's beginning to this pass's end
};

/// What a purge did. All amounts are bytes.
struct PurgeReport {
  std::uint64_t freed = 0;     // what counts for the request
  std::uint64_t reported = 0;  // the sum of what the services said
  std::uint64_t free_before = 0;
  std::uint64_t free_after = 0;  // of the volume, for ordinary users
  double seconds = 0;
  bool cancelled = false;
  std::vector<PurgePass> passes;  // in the order in which they ran
};

/// Takes a purge's answer apart. What is missing or malformed in it is left at its default.
[[nodiscard]] KELVANE_EXPORT PurgeReport readPurgeReport(const Dictionary& answer);

}  // namespace kelvane::client
