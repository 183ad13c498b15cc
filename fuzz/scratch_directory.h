#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kelvane::fuzz {

/// A directory in memory for a reader that wants files; one for a process, removed when that ends in order.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  void makeDirectory(const std::string& name) const;
  /// Replaces the file's content; its mode is 0600.
  void write(const std::string& name, std::span<const std::uint8_t> content) const;

 private:
  std::string path_;
};

}  // namespace kelvane::fuzz
