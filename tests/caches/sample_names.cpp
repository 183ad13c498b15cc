#include "tests/caches/sample_names.h"

#include <fmt/format.h>
#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace kelvane::caches::tests {
namespace {

/// What is between "[" and "]", ranges spelled out.
std::string charactersOf(const std::string& set) {
  std::string characters;
  for (std::size_t i = 0; i < set.size(); ++i) {
    characters += set[i];
    if (i + 2 >= set.size() || set[i + 1] != '-') continue;
    for (char c = set[i]; c < set[i + 2];) characters += ++c;
    i += 2;
  }
  return characters;
}

/// One name. Each "?" and each set takes one digit of the label, "*" all of it.
class Name {
 public:
  explicit Name(std::string label) : label_(std::move(label)) {}

  std::string of(const std::string& pattern) {
    std::string name;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
      if (pattern[i] == '*') {
        name += label_;
      } else if (pattern[i] == '?') {
        name += digit();
      } else if (pattern[i] == '[') {
        const std::size_t end = pattern.find(']', i);
        if (end == std::string::npos) throw std::invalid_argument(pattern);
        const std::string characters = charactersOf(pattern.substr(i + 1, end - i - 1));
        name += characters[static_cast<unsigned char>(digit()) % characters.size()];
        i = end;
      } else {
        name += pattern[i];
      }
    }
    return name;
  }

 private:
  char digit() { return label_[used_++ % label_.size()]; }

  const std::string label_;
  std::size_t used_ = 0;
};

}  // namespace

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> parts;
  std::istringstream text(path);
  for (std::string part; std::getline(text, part, '/');) parts.push_back(part);
  return parts;
}

std::string SampleNames::next() { return fmt::format("{:016x}", ++count_); }

std::string SampleNames::path(const std::string& pattern, int levels) {
  const std::string label = next();
  Name name(label);
  const std::vector<std::string> parts = splitPath(pattern);
  std::string path;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts[i] != "**") {
      path += "/" + name.of(parts[i]);
      continue;
    }
    const int least = i + 1 == parts.size() ? 1 : 0;
    for (int level = std::max(levels, least); level > 0; --level) path += fmt::format("/{}-{}", label, level);
  }
  return path.substr(1);
}

}  // namespace kelvane::caches::tests
