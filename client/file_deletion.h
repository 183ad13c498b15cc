#pragma once

#include <cstdint>

namespace kelvane::client {

/// The result of deleting one name of a file.
struct FileDeletion {
  bool is = false;           // this call removed the name
  std::uint64_t freed = 0;   // bytes that are free now
  std::uint64_t held = 0;    // bytes that become free when programs close the file
  std::uint64_t shared = 0;  // bytes in extents that other files may have as well: freed, or not
  int error = 0;             // errno of a failure; also 0 when the name was gone before
};

/// Counts `bytes` as freed.
[[nodiscard]] FileDeletion deleteFile(int directory, const char* name, std::uint64_t bytes);

/// Counts the bytes of the last name, and asks the kernel whether a process has the file open. `bytes` are
/// used if the kernel cannot be asked. With `extents`, shared bytes are counted apart.
[[nodiscard]] FileDeletion deleteFileAsking(int directory, const char* name, std::uint64_t bytes,
                                            bool extents = false);

}  // namespace kelvane::client
