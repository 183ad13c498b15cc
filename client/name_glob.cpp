#include "client/name_glob.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kelvane::client {
namespace {

constexpr std::size_t none = std::string_view::npos;

struct NamedClass {
  std::string_view name;
  bool (*has)(unsigned char);
};

// ASCII only: what a pattern matches must not depend on the locale.
bool isUpper(unsigned char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(unsigned char c) { return c >= 'a' && c <= 'z'; }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isAlpha(unsigned char c) { return isUpper(c) || isLower(c); }
bool isAlnum(unsigned char c) { return isAlpha(c) || isDigit(c); }
bool isXdigit(unsigned char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isSpace(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isBlank(unsigned char c) { return c == ' ' || c == '\t'; }
bool isCntrl(unsigned char c) { return c < ' ' || c == 127; }
bool isGraph(unsigned char c) { return c > ' ' && c < 127; }
bool isPrint(unsigned char c) { return c >= ' ' && c < 127; }
bool isPunct(unsigned char c) { return isGraph(c) && !isAlnum(c); }

constexpr std::array<NamedClass, 12> classes{{{"upper", isUpper},
                                              {"lower", isLower},
                                              {"digit", isDigit},
                                              {"alpha", isAlpha},
                                              {"alnum", isAlnum},
                                              {"xdigit", isXdigit},
                                              {"space", isSpace},
                                              {"blank", isBlank},
                                              {"cntrl", isCntrl},
                                              {"graph", isGraph},
                                              {"print", isPrint},
                                              {"punct", isPunct}}};

const NamedClass* classNamed(std::string_view name) {
  const auto* const found =
      std::find_if(classes.begin(), classes.end(), [&](const NamedClass& it) { return it.name == name; });
  return found == classes.end() ? nullptr : found;
}

/// The end of the class name that begins at `at` with "[:"; none when there is none.
std::size_t endOfClass(std::string_view glob, std::size_t at) {
  return glob.substr(at, 2) == "[:" ? glob.find(":]", at + 2) : none;
}

/// Matches one "[...]". `at` is after its "["; on return, after its "]", or none when it has no end.
bool inBrackets(std::string_view glob, std::size_t& at, unsigned char c) {
  bool negated = false;
  bool in = false;
  if (at < glob.size() && (glob[at] == '!' || glob[at] == '^')) {
    negated = true;
    ++at;
  }
  for (bool first = true; at < glob.size(); first = false) {
    if (glob[at] == ']' && !first) {
      ++at;
      return in != negated;
    }
    if (const std::size_t end = endOfClass(glob, at); end != none) {
      const NamedClass* const named = classNamed(glob.substr(at + 2, end - at - 2));
      in = in || (named != nullptr && named->has(c));
      at = end + 2;
      continue;
    }
    if (glob[at] == '\\' && at + 1 < glob.size()) ++at;
    const auto low = static_cast<unsigned char>(glob[at++]);
    auto high = low;
    if (at + 1 < glob.size() && glob[at] == '-' && glob[at + 1] != ']') {
      at += glob[at + 1] == '\\' && at + 2 < glob.size() ? 2 : 1;
      high = static_cast<unsigned char>(glob[at++]);
    }
    in = in || (low <= c && c <= high);
  }
  at = none;
  return false;
}

/// Whether the element at `at`, other than "*", matches; moves `at` after it.
bool oneMatches(std::string_view glob, std::size_t& at, char c) {
  switch (glob[at]) {
    case '?':
      ++at;
      return true;
    case '[':
      return inBrackets(glob, ++at, static_cast<unsigned char>(c));
    case '\\':
      ++at;
      [[fallthrough]];
    default:
      return glob[at++] == c;
  }
}

/// The first unknown "[:name:]", or an unsupported form of it.
std::string_view problemInBrackets(std::string_view brackets) {
  for (std::size_t at = 0; at + 1 < brackets.size(); ++at) {
    if (brackets[at] != '[') continue;
    if (brackets[at + 1] == '.' || brackets[at + 1] == '=')
      return R"("[." and "[=" are not supported within brackets)";
    const std::size_t end = endOfClass(brackets, at);
    if (end != none && classNamed(brackets.substr(at + 2, end - at - 2)) == nullptr)
      return "unknown character class; expected one such as [:digit:]";
  }
  return {};
}

}  // namespace

bool nameMatches(std::string_view glob, std::string_view name) {
  std::size_t at = 0;
  std::size_t star = none;  // behind the last "*", which so far stands for what is before `resume`
  std::size_t resume = 0;
  for (std::size_t i = 0; i < name.size();) {
    if (at < glob.size() && glob[at] == '*') {
      star = ++at;
      resume = i;
    } else if (at < glob.size() && oneMatches(glob, at, name[i])) {
      ++i;
    } else if (star != none) {
      at = star;
      i = ++resume;
    } else {
      return false;
    }
  }
  while (at < glob.size() && glob[at] == '*') ++at;
  return at == glob.size();
}

std::string_view problemInGlob(std::string_view glob) {
  for (std::size_t at = 0; at < glob.size();) {
    if (glob[at] == '\\') {
      if (at + 1 == glob.size()) return R"(nothing follows the last "\")";
      at += 2;
    } else if (glob[at] == '[') {
      const std::size_t from = ++at;
      inBrackets(glob, at, 0);
      if (at == none) return R"("[" without "]")";
      const std::string_view problem = problemInBrackets(glob.substr(from, at - 1 - from));
      if (!problem.empty()) return problem;
    } else {
      ++at;
    }
  }
  return {};
}

}  // namespace kelvane::client
