#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "kelvane/value.h"

namespace kelvane {

struct WholeFile {
  Data::Bytes bytes;
  std::optional<std::string> error;  ///< why there are no bytes, naming the path
};

/// Reads the regular file at `path`, following symbolic links to one, when it holds at most `cap` bytes. What
/// is not a regular file (a directory, FIFO, socket, device, a loop of links) is an error and is never waited
/// for. The path may have any length. Blocks for the reading; callable on any thread.
[[nodiscard]] WholeFile readWholeFile(const std::string& path, std::size_t cap);

}  // namespace kelvane
