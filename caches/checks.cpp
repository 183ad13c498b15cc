#include "caches/checks.h"

#include <algorithm>

#include "caches/path_names.h"
#include "caches/quantities.h"

namespace kelvane::caches {
namespace {

bool hasControlCharacter(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

Objection objectionToNames(const Names& names) {
  for (const std::string& name : names) {
    if (name.empty()) return "holds an empty name: expected no \"//\" and no \"/\" at the end";
    if (name == "." || name == "..") return "holds \"" + name + "\": expected a path without it";
  }
  return std::nullopt;
}

Objection objectionToText(const std::string& text) {
  if (text.empty()) return "is empty";
  if (hasControlCharacter(text)) return "holds a control character";
  return std::nullopt;
}

bool setsAreClosed(const std::string& pattern) {
  for (std::size_t open = pattern.find('['); open != std::string::npos; open = pattern.find('[', open)) {
    const std::size_t first = open + (pattern.compare(open + 1, 1, "!") == 0 ? 2 : 1);
    // "]" is an ordinary character where it comes first.
    const std::size_t close = first < pattern.size() ? pattern.find(']', first + 1) : std::string::npos;
    if (close == std::string::npos || pattern.find('/', open) < close) return false;
    open = close;
  }
  return true;
}

}  // namespace

Objection objectionToName(const std::string& name) {
  constexpr std::size_t longest_name = 64;
  const bool is_plain = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
  if (name.empty() || name.size() > longest_name || !is_plain || name.front() == '-') {
    return "expected 1 to 64 of a-z, 0-9 and \"-\", not beginning with \"-\"";
  }
  if (name == "local") return "reserved for the machine's own definitions: expected another name";
  return std::nullopt;
}

Objection objectionToSummary(const std::string& summary) {
  constexpr std::size_t longest_summary = 120;
  if (Objection objection = objectionToText(summary)) return objection;
  if (summary.size() > longest_summary) return "is longer than 120 bytes";
  return std::nullopt;
}

Objection objectionToRoot(const std::string& root) {
  if (Objection objection = objectionToText(root)) return objection;
  if (root.front() != '/' && root.compare(0, 2, "~/") != 0 && root.compare(0, 2, "${") != 0) {
    return "is relative: expected a path that begins with \"/\", \"~/\" or a variable such as "
           "${XDG_CACHE_HOME}";
  }
  const std::size_t begin = root.front() == '/' ? 1 : 0;
  if (Objection objection = objectionToNames(namesOf(std::string_view(root).substr(begin)))) return objection;
  if (root.find("**") != std::string::npos || root.find_first_of("?[]") != std::string::npos) {
    return "holds \"**\", \"?\" or \"[\": expected no wildcard but \"*\" within a name";
  }
  return std::nullopt;
}

Objection objectionToPattern(const std::string& pattern) {
  if (Objection objection = objectionToText(pattern)) return objection;
  if (pattern.front() == '/' || pattern.front() == '~')
    return "is absolute: expected a path relative to the root";
  const Names names = namesOf(pattern);
  if (Objection objection = objectionToNames(names)) return objection;
  constexpr std::size_t most_names = 63;  // the limit of the walk
  if (names.size() > most_names) return "has more than 63 names";
  if (pattern.back() == '\\') return "ends in \"\\\": expected a character after it";
  if (!setsAreClosed(pattern)) return "holds \"[\" without \"]\" in the same name";
  return std::nullopt;
}

Objection objectionToInclude(const std::string& pattern, Kind kind) {
  if (Objection objection = objectionToPattern(pattern)) return objection;
  const bool any_depth = pattern.find("**") != std::string::npos;
  if (kind == Kind::units && any_depth) {
    return "holds \"**\": expected units at a known depth, because one unit must not hold another";
  }
  if (kind == Kind::files && isAllWildcards(pattern)) {
    return "matches everything: name what may go, or leave include out where the root itself is a cache";
  }
  return std::nullopt;
}

Objection objectionToFileName(const std::string& name) {
  if (Objection objection = objectionToText(name)) return objection;
  if (name == "." || name == ".." || name.find('/') != std::string::npos)
    return "expected a name without \"/\"";
  if (hasWildcard(name)) return "holds a wildcard: expected the whole name";
  return std::nullopt;
}

Objection objectionToProcess(const std::string& name) {
  constexpr std::size_t longest_command = 15;  // the kernel keeps no more
  if (Objection objection = objectionToFileName(name)) return objection;
  if (name.size() > longest_command)
    return "is longer than 15 bytes: expected what the kernel keeps of the name";
  return std::nullopt;
}

Objection objectionToLockPath(const std::string& path, Owner owner) {
  if (Objection objection = objectionToText(path)) return objection;
  if (owner == Owner::system && path.front() == '~') return "is in a home, but the holder is the system's";
  const bool is_absolute = path.front() == '/';
  if (Objection objection = objectionToNames(namesOf(std::string_view(path).substr(is_absolute ? 1 : 0)))) {
    return objection;
  }
  if (hasWildcard(path))
    return "holds a wildcard: expected one path; {1} is what the root's first wildcard matched";
  return std::nullopt;
}

std::optional<std::chrono::seconds> checkedAge(Problems& problems, const TomlEntry& entry,
                                               const std::string& where) {
  const std::optional<std::string> text = problems.string(entry);
  if (!text) return std::nullopt;
  const std::optional<std::chrono::seconds> age = parseAge(*text);
  const std::string start = "invalid age " + inQuotes(*text) + " in " + where + ": expected ";
  if (!age) {
    problems.add(entry.value.line, start + "a number and s, m, h, d or w, such as 30d, at most 3660d");
  } else if (*age < least_age) {
    problems.add(entry.value.line, start + "at least 1h");
  } else {
    return age;
  }
  return std::nullopt;
}

}  // namespace kelvane::caches
