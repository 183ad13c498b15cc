#pragma once

// Opens directories without triggering an automount or waiting for a file system. Before a name is looked up,
// the mount table is checked. After a name has been opened (with O_PATH, which does not call the file
// system), the kernel names its mount, so a file system that was mounted in between is refused too.
//
// Automounts, network file systems and file systems that a program serves are refused.

#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "support/volumes.h"

namespace kelvane::caches {

class Mounts {
 public:
  explicit Mounts(std::vector<MountEntry> table) : table_(std::move(table)) {}

  /// Why this absolute path must not be looked up; empty when it may be. Reads the table only.
  [[nodiscard]] std::string refusal(const std::string& path) const;
  /// The same for a descriptor, which may be O_PATH.
  [[nodiscard]] std::string refusalOf(int descriptor) const;
  /// 0 when the kernel does not return it.
  [[nodiscard]] static std::uint64_t idOf(int descriptor);

 private:
  const std::vector<MountEntry> table_;
};

struct OpenedDirectory {
  FileDescriptor directory;  // O_PATH; invalid: see the reason
  std::string path;          // without links
  std::string reason;
  int error = 0;  // errno, when a system call failed
};

/// Whether links on the path may be followed: only root's, and only on the path to a home directory.
enum class Links { refused, ofRoot };

/// Opens the directory at an absolute path, name by name.
[[nodiscard]] OpenedDirectory openDirectory(const Mounts& mounts, const std::string& path, Links links);
/// Opens the directory `name` in `parent`, which openDirectory opened. Follows no link.
[[nodiscard]] OpenedDirectory openIn(const Mounts& mounts, const OpenedDirectory& parent,
                                     const std::string& name);

}  // namespace kelvane::caches
