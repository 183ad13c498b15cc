#pragma once

// Throwing away files of one folder, oldest first, without ever leaving it.
//
// Whoever can write in the folder is not trusted: names are looked up one by one from the folder's own
// descriptor and links are never followed, so what is deleted was in the folder when it was deleted. Folders
// on other file systems are not entered.
//
// Amounts are the bytes that the file system gives back: the blocks a file has, not its length. A file with
// another name elsewhere (a hard link) gives back nothing; it counts 0 and is left alone.

#include <sys/stat.h>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::examples {

/// Seconds since 1970.
using Seconds = std::int64_t;

struct CachedFile {
  std::string path;  // relative to the folder
  Seconds modified = 0;
  std::uint64_t bytes = 0;
};

struct Reclaimed {
  std::uint64_t bytes = 0;  // that really went
  std::uint64_t files = 0;
};

/// A folder of files that can be made again. Constant after opening; any thread, also several at a time.
class CacheFolder {
 public:
  /// The path itself may be a link. On failure nothing, with the reason.
  static std::optional<CacheFolder> open(const std::string& path, std::string& reason);

  /// The regular files last changed at `modified_by` or before, oldest first, those of one age by name.
  [[nodiscard]] std::vector<CachedFile> files(Seconds modified_by) const;
  /// What deleting these files would give back.
  [[nodiscard]] std::uint64_t bytes(Seconds modified_by) const;
  /// Deletes such files, oldest first, until at least `amount` bytes have gone, none is left, or `cancelled`,
  /// asked before each, says so. A file that has meanwhile changed or vanished is passed over. Folders stay.
  Reclaimed reclaim(std::uint64_t amount, Seconds modified_by, const std::function<bool()>& cancelled) const;

 private:
  CacheFolder(FileDescriptor root, dev_t device) : root_(std::move(root)), device_(device) {}
  void collect(FileDescriptor folder, const std::string& prefix, int depth,
               std::vector<CachedFile>& found) const;
  /// The folder that holds the file; empty when it is no longer to be had without following a link.
  [[nodiscard]] FileDescriptor parentOf(const std::string& path) const;
  [[nodiscard]] std::uint64_t remove(const std::string& path, Seconds modified_by, bool& removed) const;

  FileDescriptor root_;
  dev_t device_;
};

/// Up to when a file must have been changed last to be given up at `urgency`: at 1 it is older than three
/// quarters of `lifetime` (seconds), at 2 than a half, at 3 than a quarter; at 4 every file goes.
[[nodiscard]] Seconds givenUpAt(int urgency, Seconds now, Seconds lifetime);

}  // namespace kelvane::examples
