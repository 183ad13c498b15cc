#pragma once

// The lists behind safety.h: where caches are, and what must stay in any place.
//
// Paths of users are relative to the home directory, paths of the system absolute without the first slash.
// A name may hold wildcards as in glob(7).

#include <cstdint>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/path_names.h"

namespace kelvane::caches {

/// A place that may be named as a root, with everything below it.
struct Place {
  Names path;
  enum class Rule : std::uint8_t {
    whole,             // is itself a cache: a root here needs no include pattern
    inside,            // only directories below it, which are caches themselves
    named,             // files must be named by include patterns
    inside_named,      // only directories below it, and include patterns must name the files
    rotated_logs,      // every include pattern names compressed files
    failed_downloads,  // every include pattern ends in "*.lastUpdated"
  } rule = Rule::whole;
};

[[nodiscard]] const std::vector<Place>& systemPlaces();
[[nodiscard]] const std::vector<Place>& userPlaces();

/// Directories like ~/.cache, including those of sandboxed programs.
[[nodiscard]] const std::vector<Names>& cacheHomes();
/// What is in a cache directory by its place only: relative to each of cacheHomes().
[[nodiscard]] const std::vector<Names>& keptInCacheHomes();
/// What stays although it is below one of the places.
[[nodiscard]] const std::vector<Names>& keptInHomes();
[[nodiscard]] const std::vector<Names>& keptInSystem();

/// Directories of programs that keep their caches beside their settings: ~/.config/APP/.../NAME.
[[nodiscard]] bool isCacheName(const std::string& name);
/// A name that no root and no include pattern may contain at any depth.
[[nodiscard]] bool isForbiddenName(const std::string& name, Owner owner);
/// Repositories, which are not entered below any root of files.
[[nodiscard]] const std::vector<std::string>& repositoryNames();

}  // namespace kelvane::caches
