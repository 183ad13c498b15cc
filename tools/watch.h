#pragma once

// The live view: what each look at the daemon and the volumes found, and what changed since the one before.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/stats.h"
#include "tools/status.h"

namespace kelvane::tools {

/// Bytes that purges freed, by the services' own account.
struct Freed {
  std::int64_t bytes = 0;
  std::optional<std::int64_t> change = {};  // since an earlier look, where there was one
};

/// The purges since the daemon's start, as it counts them when they are over.
struct Purges {
  std::uint64_t count = 0;
  std::uint64_t fell_short = 0;
  Freed total = {};
  std::map<std::string, Freed> services = {};
};
[[nodiscard]] Purges purgesIn(const Stats& stats);

struct Look {
  std::string time;
  Status status;
  std::optional<Purges> purges = {};  // nothing when the daemon is away, or its counters cannot be read
};

/// Notes in `now` what has changed since the look before it. A daemon that began to count anew in between has
/// freed all that it counted since then.
void noteChanges(Look& now, const Look& before);

/// `hint` is for the end of the first line.
[[nodiscard]] std::string watchScreen(const Look& look, const std::string& hint, const Screen& screen);
[[nodiscard]] Value watchValue(const Look& look);

}  // namespace kelvane::tools
