#pragma once

// Texts of kelvane-caches for tables and logs.

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <string_view>

#include "caches/definition.h"
#include "caches/workers.h"

namespace kelvane::caches {

/// "30 days", "12 hours", "5 minutes", "7 seconds": rounded down to the largest unit that fits at
/// least twice, or once.
[[nodiscard]] std::string ageText(std::int64_t seconds);

/// A path on one line: backslashes, control characters, bytes that are not UTF-8 and characters that turn the
/// direction of text are written as \xNN, so that every name is shown, and different names look different.
[[nodiscard]] std::string shown(std::string_view path);

/// The user's name, or the ID of a user without one.
[[nodiscard]] std::string userName(uid_t user);

[[nodiscard]] const char* nameOf(Kind kind);
[[nodiscard]] const char* nameOf(Owner owner);
[[nodiscard]] const char* nameOf(CacheClass cache_class);

/// Why a root gives nothing at any urgency; empty when it gives something.
[[nodiscard]] std::string zeroReason(const Definition& definition, const RootReport& root);
/// The same for the whole holder.
[[nodiscard]] std::string zeroReason(const Definition& definition, const HolderReport& report);

}  // namespace kelvane::caches
