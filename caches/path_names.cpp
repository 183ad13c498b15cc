#include "caches/path_names.h"

#include <fnmatch.h>
#include <algorithm>

namespace kelvane::caches {

Names namesOf(std::string_view path) {
  Names names;
  for (std::size_t begin = 0;;) {
    const std::size_t end = path.find('/', begin);
    names.emplace_back(path.substr(begin, end - begin));
    if (end == std::string_view::npos) return names;
    begin = end + 1;
  }
}

std::string pathOf(Names::const_iterator begin, Names::const_iterator end) {
  std::string path;
  for (auto name = begin; name != end; ++name) path += (name == begin ? "" : "/") + *name;
  return path;
}

bool hasWildcard(std::string_view name) { return name.find_first_of("*?[") != std::string_view::npos; }

bool nameMatches(const std::string& pattern, const std::string& name) {
  return ::fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
}

bool beginsWith(const Names& names, const Names& patterns) {
  if (names.size() < patterns.size()) return false;
  return std::equal(patterns.begin(), patterns.end(), names.begin(), nameMatches);
}

bool isAllWildcards(std::string_view pattern) {
  // A set restricts the name, unless it is negated.
  for (std::size_t at = 0; at < pattern.size(); ++at) {
    if (pattern[at] == '[' && pattern.substr(at + 1, 1) == "!") {
      at = pattern.find(']', std::min(at + 3, pattern.size()));
      if (at == std::string_view::npos) return true;
    } else if (pattern[at] != '*' && pattern[at] != '?' && pattern[at] != '/') {
      return false;
    }
  }
  return true;
}

}  // namespace kelvane::caches
