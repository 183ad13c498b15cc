#pragma once

#include <sys/stat.h>
#include <cstdint>
#include <optional>
#include <vector>

#include "client/cache_locks.h"
#include "client/cache_setup.h"
#include "client/cache_walk.h"
#include "client/hard_links.h"
#include "client/open_files.h"

namespace kelvane::client {

/// The content of a unit.
struct UnitContent {
  std::optional<CacheStay> obstacle;  // why it cannot go, whatever its age
  int error = 0;                      // errno when it could not be read
  bool complete = true;
  bool files = false;  // whether it has any; else its age is that of the directory
  CacheAge newest{no_time, 0, 0};
  std::uint64_t bytes = 0;          // of files with one name, directories and symbolic links
  std::vector<LinkedFile*> linked;  // of the others, those that were counted here
};

/// Examines units for a purge or a survey.
struct UnitCheck {
  const CacheSetup& setup;
  CacheAccount& account;
  const CacheLocks& locks;  // locks of this process, whose files do not count as open
  OpenFiles* open;          // null unless open files stay
  HardLinks* links;         // null when names need not be counted
  [[nodiscard]] UnitContent look(const CacheUnitFound& unit) const;
};

/// The bytes that deleting a directory or a symbolic link frees. Measured while a directory is full, because
/// some file systems shrink it while it is emptied.
[[nodiscard]] std::uint64_t bytesOfEntry(const struct stat& status);

/// Its age, distinct from others of the same moment.
[[nodiscard]] CacheAge ageOfUnit(const CacheUnitFound& unit, const UnitContent& content);

}  // namespace kelvane::client
