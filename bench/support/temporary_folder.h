#pragma once

#include <stdlib.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace kelvane::bench {

/// A folder that goes with this.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "kelvane-bench-XXXXXX") {
    if (::mkdtemp(path_.data()) != nullptr) return;
    std::perror("cannot make a temporary directory");
    std::exit(1);
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kelvane::bench
