#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "support/volumes.h"

namespace kelvane {

inline constexpr const char* mount_table_path = "/proc/self/mountinfo";

/// Reads a table of the kernel's mountinfo form; nothing when there is none to read.
[[nodiscard]] std::optional<std::vector<MountEntry>> readMountTable(
    const std::string& path = mount_table_path);

/// Counts the changes of this process's mount table, several at once as one. Any thread.
class MountTableWatch {
 public:
  MountTableWatch();
  /// Never 0, unless the table cannot be watched.
  [[nodiscard]] std::uint64_t generation();

 private:
  std::mutex mutex_;  // guards all below
  FileDescriptor table_;
  std::uint64_t generation_ = 0;
};

}  // namespace kelvane
