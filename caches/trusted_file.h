#pragma once

// Files of the administrator and of packages: believed only when nobody else could have written them.

#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

struct TrustedFile {
  std::string text;
  std::string problem;  // why there is no text; empty: none
};

/// Reads a regular file of root's or of this process's user that nobody else can write, following no link,
/// when it holds at most `cap` bytes. Waits for nothing.
[[nodiscard]] TrustedFile readTrustedFile(int directory, const char* name, std::size_t cap);

/// Opens a directory under the same conditions. `problem` is set, and errno, when it cannot be.
[[nodiscard]] FileDescriptor openTrustedDirectory(const std::string& path, std::string& problem);

}  // namespace kelvane::caches
