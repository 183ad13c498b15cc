#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::tests {

/// Moves the process, before it has threads, into a machine of its own: a private mount namespace whose root
/// is the real one with two folders more, those for service descriptors. Nothing outside changes. As root, or
/// through a user namespace. Ends the program, with the reason, where neither is permitted.
void enterPrivateMachine();

inline constexpr const char* system_descriptors = "/System/Library/Kelvane";
inline constexpr const char* internal_descriptors = "/OrvelInternal/Library/Kelvane";

/// A folder in the machine's own temporary file system, removed with the object.
class Folder {
 public:
  Folder();
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// A real volume of `megabytes`, mounted in a folder of its own for as long as the object lives.
class Volume {
 public:
  explicit Volume(unsigned megabytes);
  ~Volume();
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;
  [[nodiscard]] const std::string& path() const { return folder_.path(); }
  /// Bytes available to an ordinary user.
  [[nodiscard]] std::uint64_t freeSpace() const;
  /// Fills a folder of the volume with `count` files of `bytes` each; returns the folder's path.
  [[nodiscard]] std::string fill(const std::string& name, unsigned count, std::uint64_t bytes) const;

 private:
  Folder folder_;
};

void writeFile(const std::string& path, const std::string& contents);
/// A property list of these lines within a dictionary.
[[nodiscard]] std::string propertyList(const std::string& entries);

}  // namespace kelvane::tests
