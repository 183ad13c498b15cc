// Examines every file of a corpus once, in builds without libFuzzer: what was once a finding stays repaired
// under every compiler.
//
//   replay_TARGET DIRECTORY
//
// Ends with 0, or aborts with the property that does not hold and the file that shows it.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/target.h"

namespace {

std::vector<std::filesystem::path> filesOf(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

void examineFile(const std::filesystem::path& path) {
  std::fprintf(stderr, "%s\n", path.filename().c_str());
  std::ifstream file(path, std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  // A copy of exactly this size, so that AddressSanitizer sees a byte read beyond it.
  kelvane::fuzz::examine(std::vector<std::uint8_t>(bytes));
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", arguments[0]);
    return 2;
  }
  std::error_code error;
  if (!std::filesystem::is_directory(arguments[1], error)) {
    std::fprintf(stderr, "not a directory: %s\n", arguments[1]);
    return 2;
  }
  const auto files = filesOf(arguments[1]);
  for (const auto& file : files) examineFile(file);
  if (files.empty()) std::fprintf(stderr, "no files in %s: expected a corpus\n", arguments[1]);
  return files.empty() ? 1 : 0;
}
