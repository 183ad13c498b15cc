#pragma once

#include <cstdint>
#include <string>

#include "kelvane/purge_report.h"
#include "tools/screen.h"

namespace kelvane::tools {

/// A purge that is over, as far as it got.
struct Purged {
  std::string volume;
  std::uint64_t asked = 0;
  client::PurgeReport report;
  bool cancelled = false;
};

/// What the volume gained, by its own free space; less than nothing when others took more.
[[nodiscard]] std::int64_t measured(const client::PurgeReport& report);

[[nodiscard]] std::string purgeScreen(const Purged& purged, const Screen& screen);
[[nodiscard]] Value purgeValue(const Purged& purged);

/// The line that is written over while a purge runs: never wider than the screen.
[[nodiscard]] std::string progressLine(const std::string& volume, std::int64_t gained, std::uint64_t asked,
                                       double seconds, const Screen& screen);

}  // namespace kelvane::tools
