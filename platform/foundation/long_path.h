#pragma once

#include <fcntl.h>

#include <optional>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

/// A path in a form that the kernel accepts, which takes less than PATH_MAX bytes in one call: the rest of
/// the path, relative to an open directory.
struct ReachablePath {
  FileDescriptor directory;  ///< none for a path that is short enough as it is
  std::string rest;

  [[nodiscard]] int at() const { return directory ? directory.get() : AT_FDCWD; }
};

/// Opens directories on the way where the path is too long. Nothing, with the reason in errno, when one of
/// them cannot be opened. Callable on any thread.
[[nodiscard]] std::optional<ReachablePath> reachablePath(const std::string& path);

}  // namespace kelvane
