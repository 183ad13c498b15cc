#pragma once

// How a unit that is a directory goes: first its markers, then its name (it is renamed within its
// parent), then its content, then the directory. It is checked before the first step, and again after the
// renaming, when no program looks for it; if it must stay, it is renamed back. An interrupted purge leaves a
// directory of the new name, which the next purge finishes.

#include <cstdint>
#include <optional>
#include <string_view>

#include "client/file_deletion.h"
#include "client/unit_content.h"

namespace kelvane::client {

/// Whether a name is that of a unit whose purge was interrupted.
[[nodiscard]] bool isLeftoverName(std::string_view name);

/// Notified of what is deleted in a unit, possibly by two threads.
class UnitDeletions {
 public:
  virtual ~UnitDeletions() = default;
  /// Whether to stop in the middle.
  [[nodiscard]] virtual bool stopped() = 0;
  virtual void deleted(const FileDeletion& deletion) = 0;
  virtual void failed(int error) = 0;
};

/// Nothing when the unit has gone, at least from its name; else why it stays. Units newer than `newest` stay.
[[nodiscard]] std::optional<CacheStay> removeUnit(const UnitCheck& check, const CacheUnitFound& unit,
                                                  std::int64_t newest, UnitDeletions& deletions);

}  // namespace kelvane::client
