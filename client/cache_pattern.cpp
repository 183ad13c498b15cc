#include "client/cache_pattern.h"

#include <algorithm>
#include <string_view>

#include "client/name_glob.h"

namespace kelvane::client {
namespace {

std::vector<std::string_view> partsOf(std::string_view pattern) {
  std::vector<std::string_view> parts;
  while (true) {
    const std::size_t slash = pattern.find('/');
    parts.push_back(pattern.substr(0, slash));
    if (slash == std::string_view::npos) return parts;
    pattern.remove_prefix(slash + 1);
  }
}

std::string_view problemInPart(std::string_view part) {
  if (part.empty()) return R"(expected a relative path without an empty name)";
  if (part == "." || part == "..") return R"("." and ".." are not allowed)";
  if (part == "**") return {};
  if (part.find("**") != std::string_view::npos) return R"("**" must stand alone between slashes)";
  return problemInGlob(part);
}

}  // namespace

std::string CachePatterns::problemIn(const std::string& pattern) {
  if (pattern.size() > most_bytes) return "longer than 4096 bytes";
  if (pattern.find('\0') != std::string::npos) return "contains a NUL byte";
  const std::vector<std::string_view> parts = partsOf(pattern);
  if (parts.size() > most_parts) return "more than 63 names";
  for (const std::string_view part : parts)
    if (const std::string_view problem = problemInPart(part); !problem.empty()) return std::string(problem);
  return {};
}

CachePatterns::CachePatterns(const std::vector<std::string>& patterns) {
  for (const std::string& text : patterns) {
    Pattern& pattern = patterns_.emplace_back();
    for (const std::string_view part : partsOf(text)) {
      auto kind = Part::Kind::literal;
      if (part == "**") {
        kind = Part::Kind::anyNames;
      } else if (part == "*") {
        kind = Part::Kind::anyName;
      } else if (part.find_first_of("*?[\\") != std::string_view::npos) {
        kind = Part::Kind::glob;
      }
      pattern.parts.push_back({kind, std::string(part)});
    }
    std::size_t last = pattern.parts.size() - 1;
    pattern.final = State{1} << last;
    while (last > 0 && pattern.parts[last].kind == Part::Kind::anyNames) pattern.final |= State{1} << --last;
  }
}

bool CachePatterns::Part::matches(const char* name) const {
  switch (kind) {
    case Kind::literal:
      return text == name;
    case Kind::glob:
      return nameMatches(text, name);
    case Kind::anyName:
    case Kind::anyNames:
      break;
  }
  return true;
}

/// "**" may stand for no name: what follows it may match at once.
CachePatterns::State CachePatterns::Pattern::withEmptyRuns(State state) const {
  for (std::size_t i = 0; i < parts.size(); ++i)
    if ((state >> i & 1) != 0 && parts[i].kind == Part::Kind::anyNames) state |= State{1} << (i + 1);
  return state;
}

CachePatterns::State CachePatterns::Pattern::after(State state, const char* name) const {
  State next = 0;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if ((state >> i & 1) == 0 || !parts[i].matches(name)) continue;
    next |= State{1} << (parts[i].kind == Part::Kind::anyNames ? i : i + 1);
  }
  return withEmptyRuns(next);
}

void CachePatterns::begin(State* states) const {
  for (std::size_t i = 0; i < patterns_.size(); ++i) states[i] = patterns_[i].withEmptyRuns(1);
}

void CachePatterns::enter(const State* from, const char* name, State* to) const {
  for (std::size_t i = 0; i < patterns_.size(); ++i) to[i] = patterns_[i].after(from[i], name);
}

bool CachePatterns::match(const State* states) const {
  for (std::size_t i = 0; i < patterns_.size(); ++i)
    if ((states[i] & patterns_[i].matched()) != 0) return true;
  return false;
}

bool CachePatterns::match(const State* from, const char* name) const {
  return std::any_of(patterns_.begin(), patterns_.end(), [&](const Pattern& pattern) {
    const State state = from[&pattern - patterns_.data()];
    return state != 0 && (pattern.after(state, name) & pattern.matched()) != 0;
  });
}

bool CachePatterns::canMatchBelow(const State* states) const {
  for (std::size_t i = 0; i < patterns_.size(); ++i)
    if ((states[i] & ~patterns_[i].matched()) != 0) return true;
  return false;
}

bool CachePatterns::canMatchHere(const State* states) const {
  for (std::size_t i = 0; i < patterns_.size(); ++i)
    if ((states[i] & patterns_[i].final) != 0) return true;
  return false;
}

}  // namespace kelvane::client
