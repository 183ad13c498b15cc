#pragma once

// How far the log of a suite had come with the last change that was synced. Internal to this folder.
//
// A log that was damaged ends, for SQLite, before the damage: what was written last would be gone without a
// word. So the position in the log is written beside it after each such change, into the file
// <suite>.db-mark, and compared when the log is opened. The mark itself need not be synced. After a power
// loss it may be an old one, which tells less; it never tells of more than the log had.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::foundation {

struct LogPosition {
  std::uint32_t generation = 0;  // goes up by one whenever the log begins again
  std::uint32_t salt = 0;        // of the generation
  std::uint32_t frames = 0;
};

class SuiteMark {
 public:
  /// A mark that cannot be opened or read tells nothing.
  explicit SuiteMark(const std::string& path);

  void set(LogPosition position) const;
  void clear() const { set({}); }
  /// Whether a log that has come this far has lost something.
  [[nodiscard]] bool isBeyond(LogPosition position) const;

 private:
  [[nodiscard]] std::optional<LogPosition> get() const;

  const FileDescriptor file_;
};

}  // namespace kelvane::foundation
