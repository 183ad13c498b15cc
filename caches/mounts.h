#pragma once

// Opens directories without waking or waiting for anything behind a mount: before a name is looked up, the
// mount table says what is there, and after a name was opened (with O_PATH, which asks no file system), the
// kernel says which mount it is on. What is mounted in between is therefore refused as well.
//
// Refused are automounts, network file systems, and those that a program serves.

#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "support/volumes.h"

namespace kelvane::caches {

class Mounts {
 public:
  explicit Mounts(std::vector<MountEntry> table) : table_(std::move(table)) {}

  /// Why nothing at this absolute path may be looked up; empty when it may. Asks the table only.
  [[nodiscard]] std::string refusal(const std::string& path) const;
  /// The same for what is open, which may be O_PATH.
  [[nodiscard]] std::string refusalOf(int descriptor) const;
  /// 0 when the kernel does not say.
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

/// Whether a link on the way may be followed: only root's, and only on the way to a home directory.
enum class Links { refused, ofRoot };

/// Opens the directory at an absolute path, name by name.
[[nodiscard]] OpenedDirectory openDirectory(const Mounts& mounts, const std::string& path, Links links);
/// Opens the directory `name` in `parent`, which openDirectory opened. Follows no link.
[[nodiscard]] OpenedDirectory openIn(const Mounts& mounts, const OpenedDirectory& parent,
                                     const std::string& name);

}  // namespace kelvane::caches
