#pragma once

#include <string>
#include <vector>

namespace kelvane::caches::tests {

/// Different paths that a pattern matches: a counter gives each its name. "**" stands for `levels` names, for
/// at least one where it comes last.
class SampleNames {
 public:
  [[nodiscard]] std::string path(const std::string& pattern, int levels);
  /// 16 hexadecimal digits, without anything that a pattern could exclude.
  [[nodiscard]] std::string next();

 private:
  unsigned count_ = 0;
};

[[nodiscard]] std::vector<std::string> splitPath(const std::string& path);

}  // namespace kelvane::caches::tests
