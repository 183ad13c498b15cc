#pragma once

// Files of the administrator and of packages: trusted only when nobody else can write them.

#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

struct TrustedFile {
  std::string text;
  std::string problem;  // why there is no text; empty: none
};

/// Reads a regular file of at most `cap` bytes that is owned by root or this process's user and that nobody
/// else can write. Follows no link and never blocks.
[[nodiscard]] TrustedFile readTrustedFile(int directory, const char* name, std::size_t cap);

/// Opens a directory under the same conditions. On failure, sets `problem` and errno.
[[nodiscard]] FileDescriptor openTrustedDirectory(const std::string& path, std::string& problem);

}  // namespace kelvane::caches
