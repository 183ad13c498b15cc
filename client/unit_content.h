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

/// What a unit was found to be.
struct UnitContent {
  std::optional<CacheStay> obstacle;  // why it cannot go, whatever its age
  int error = 0;                      // errno of why it could not be read
  bool complete = true;
  bool files = false;  // it has some; else its age is that of the directory
  CacheAge newest{no_time, 0, 0};
  std::uint64_t bytes = 0;          // of files with one name, directories and symbolic links
  std::vector<LinkedFile*> linked;  // of the others, those that were counted here
};

/// Looks at units, as a purge or a survey with these parts sees them.
struct UnitCheck {
  const CacheSetup& setup;
  CacheAccount& account;
  const CacheLocks& locks;  // own ones: that these files are open says nothing
  OpenFiles* open;          // null unless open files stay
  HardLinks* links;         // null when names need not be counted
  [[nodiscard]] UnitContent look(const CacheUnitFound& unit) const;
};

/// What deleting a directory or a symbolic link gives back. As those have it when they are full: some file
/// systems shrink a directory while it is emptied.
[[nodiscard]] std::uint64_t bytesOfEntry(const struct stat& status);

/// Its age, told apart from others of the same moment.
[[nodiscard]] CacheAge ageOfUnit(const CacheUnitFound& unit, const UnitContent& content);

}  // namespace kelvane::client
