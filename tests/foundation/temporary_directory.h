#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

namespace kelvane::test {

/// A new directory that is gone, with all in it, when this object is.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / "kelvane-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory can be made");
    path_ = pattern;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    // What another thread is just letting go of, a settings file's log for one, may vanish in the middle.
    std::error_code failed;
    for (int tries = 0; tries < 100; ++tries) {
      std::filesystem::remove_all(path_, failed);
      if (failed != std::errc::no_such_file_or_directory && failed != std::errc::directory_not_empty) break;
      std::this_thread::yield();
    }
  }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  /// Writes a file, and the folders above it.
  void write(std::string_view name, std::string_view content) const {
    const std::filesystem::path file = *this / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
  }

 private:
  std::string path_;
};

}  // namespace kelvane::test
