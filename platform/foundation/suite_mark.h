#pragma once

// The position in a suite's log after the last change that was synced. Internal to this directory.
//
// For SQLite a damaged log ends before the damage, so the last writes would be lost silently. Therefore the
// position in the log is written after each such change into the file <suite>.db-mark, and compared when the
// log is opened. The mark itself need not be synced: after a power loss it may be an old one, which detects
// less. It is never beyond what the log had.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::foundation {

struct LogPosition {
  std::uint32_t generation = 0;  // incremented whenever the log restarts
  std::uint32_t salt = 0;        // of the generation
  std::uint32_t frames = 0;
};

class SuiteMark {
 public:
  /// A mark that cannot be opened or read counts as none.
  explicit SuiteMark(const std::string& path);

  void set(LogPosition position) const;
  void clear() const { set({}); }
  /// Whether a log that ends at this position has lost something.
  [[nodiscard]] bool isBeyond(LogPosition position) const;

 private:
  [[nodiscard]] std::optional<LogPosition> get() const;

  const FileDescriptor file_;
};

}  // namespace kelvane::foundation
