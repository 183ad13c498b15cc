#pragma once

// Small files of a user, who may be hostile: read as that user, without following a link or waiting.

#include <cstddef>
#include <string>

namespace kelvane::caches {

inline constexpr std::size_t largest_file_in_home = std::size_t{64} << 10;

struct FileInHome {
  std::string text;
  std::string problem;  // why there is no text, without the name; also empty when the file is missing
};

/// The file at `path`, relative to a descriptor of the home directory. It must be a regular file of the
/// effective user's, on the home's file system, of at most largest_file_in_home bytes.
[[nodiscard]] FileInHome readFileInHome(int home_directory, const char* path);

}  // namespace kelvane::caches
