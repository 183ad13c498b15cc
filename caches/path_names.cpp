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
  bool in_set = false;
  for (const char c : pattern) {
    if (c == '[') in_set = true;
    if (c == ']') in_set = false;
    if (!in_set && c != '*' && c != '?' && c != '/' && c != ']') return false;
  }
  return true;
}

}  // namespace kelvane::caches
