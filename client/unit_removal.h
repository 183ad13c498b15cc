#pragma once

// How a unit that is a directory goes: first its markers, then its name (it is renamed beside, in the same
// parent), then its content, then the directory. It is checked before the first step, and again once it has
// the other name, under which nobody looks for it: when it may no longer go, it is renamed back. An
// interrupted purge leaves a directory of the other name, which the next one finishes.

#include <cstdint>
#include <optional>
#include <string_view>

#include "client/file_deletion.h"
#include "client/unit_content.h"

namespace kelvane::client {

/// Whether a name is that of a unit whose purge was interrupted.
[[nodiscard]] bool isLeftoverName(std::string_view name);

/// Told what goes of a unit, by two threads perhaps.
class UnitDeletions {
 public:
  virtual ~UnitDeletions() = default;
  /// Whether to stop in the middle.
  [[nodiscard]] virtual bool stopped() = 0;
  virtual void deleted(const FileDeletion& deletion) = 0;
  virtual void failed(int error) = 0;
};

/// Nothing: the unit has gone, from its name at least. Else why it stays. What is newer than `newest` stays.
[[nodiscard]] std::optional<CacheStay> removeUnit(const UnitCheck& check, const CacheUnitFound& unit,
                                                  std::int64_t newest, UnitDeletions& deletions);

}  // namespace kelvane::client
