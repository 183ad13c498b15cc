#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

#include "kelvane/cache_rules.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {

/// Locks that are held for as long as this lives. A lock that cannot be tested counts as held by another
/// process.
class CacheLocks {
 public:
  /// Takes all of these locks, or none when another process holds one. Relative paths begin at the directory.
  [[nodiscard]] bool take(int directory, const std::vector<CacheLock>& locks);
  /// The locks of a unit. Their paths begin at `root` when they name the unit, else at `unit`.
  [[nodiscard]] bool takeForUnit(int root, int unit, const std::string& name,
                                 const std::vector<CacheLock>& locks);
  /// Whether a file is one of those.
  [[nodiscard]] bool have(dev_t device, ino_t number) const;

 private:
  struct Held {
    FileDescriptor file;
    CacheLock::Kind kind;
    dev_t device;
    ino_t number;
  };

  bool takeOne(int directory, const CacheLock& lock);

  std::vector<Held> held_;
};

}  // namespace kelvane::client
