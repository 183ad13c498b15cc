#pragma once

#include <cstdint>

namespace kelvane::client {

/// What came of deleting one name of a file.
struct FileDeletion {
  bool is = false;           // the name is gone, by this
  std::uint64_t freed = 0;   // bytes that are free now
  std::uint64_t held = 0;    // bytes that will be, once those that have the file open close it
  std::uint64_t shared = 0;  // bytes in extents that other files may have as well: freed, or not
  int error = 0;             // errno of a failure; 0 also when the name was gone before
};

/// Counts `bytes` as freed.
[[nodiscard]] FileDeletion deleteFile(int directory, const char* name, std::uint64_t bytes);

/// Counts what its last name gives back, and asks the kernel whether somebody has the file open. `bytes` are
/// those of the file where it cannot be asked. With `extents`, those that are shared are told apart.
[[nodiscard]] FileDeletion deleteFileAsking(int directory, const char* name, std::uint64_t bytes,
                                            bool extents = false);

}  // namespace kelvane::client
