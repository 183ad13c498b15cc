#pragma once

// A holder: a kind of cache, where it is, and which files of it may go when.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kelvane/cache_rules.h"

namespace kelvane::caches {

enum class Kind : std::uint8_t { files, units };
enum class Owner : std::uint8_t { system, user };
enum class CacheClass : std::uint8_t {
  regenerable,  // on
  expirable,    // on; urgencies 2 and 3, with floors
  personal,     // off until somebody enables it
};

/// A sign that the program that owns the cache is running. Paths begin with "~/" or "/", or are relative to
/// the root;
/// "{1}" is what the first wildcard of the root matched.
struct InUse {
  enum class Kind : std::uint8_t {
    flock,  // as client::CacheLock
    record,
    exists,
    pid_link,  // a symbolic link to HOST-PID or IP:+PID, whose process exists or is on another host
    process,   // a process of the root's user with this name (comm)
  };
  Kind kind = Kind::flock;
  std::string what;
};

struct Definition {
  std::string name;     // [a-z0-9-], at most 64; the ID is com.orvel.kelvane.caches.NAME
  std::string summary;  // one line, for tables
  Kind kind = Kind::files;
  Owner owner = Owner::user;
  CacheClass cache_class = CacheClass::regenerable;
  bool needs_network = false;
  bool enabled = true;   // false: personal and not enabled, or masked
  bool shipped = false;  // from /usr/lib; others answer under the ID com.orvel.kelvane.caches.local
  /// As written, with variables and "~". A name may contain "*".
  std::vector<std::string> roots;
  std::vector<InUse> in_use;
  client::CacheRules rules;  // its locks are empty: they come from `in_use` for each root
  std::string file;          // where it was read from
};

}  // namespace kelvane::caches
