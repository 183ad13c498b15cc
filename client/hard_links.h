#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <tuple>
#include <vector>

namespace kelvane::client {

/// When a file was last touched; the number orders files of the same moment.
struct CacheAge {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
  std::uint64_t number = 0;
  bool operator<(const CacheAge& other) const {
    return std::tie(seconds, nanoseconds, number) < std::tie(other.seconds, other.nanoseconds, other.number);
  }
};

/// A file with several names, of which some were seen.
struct LinkedFile {
  std::uint64_t device = 0;
  std::uint64_t number = 0;
  std::uint64_t bytes = 0;
  CacheAge newest;          // of the file, or of the newest unit that has a name of it
  std::uint32_t names = 0;  // all of them, in any place
  std::uint32_t seen = 0;   // those among what may go
  std::uint32_t here = 0;   // those in the unit that is being checked
  [[nodiscard]] bool closed() const { return seen == names; }
};

/// Counts the names of files that have several. Its size is bounded: files beyond the bound stay.
class HardLinks {
 public:
  static constexpr std::size_t most_files = 131'072;
  /// Files with more names are not counted, because all names of a file must fit into memory before it goes.
  static constexpr std::uint32_t most_names = 1024;

  /// Null when there is no room for it. A new one has `seen` 0.
  LinkedFile* find(std::uint64_t device, std::uint64_t number, std::uint32_t names);
  /// Null when it is unknown.
  [[nodiscard]] LinkedFile* known(std::uint64_t device, std::uint64_t number);
  [[nodiscard]] const std::deque<LinkedFile>& files() const { return files_; }
  [[nodiscard]] std::deque<LinkedFile>& files() { return files_; }

 private:
  void grow();
  [[nodiscard]] std::size_t slotOf(std::uint64_t device, std::uint64_t number) const;

  std::deque<LinkedFile> files_;
  std::vector<std::uint32_t> slots_;  // 1 + the index of a file; 0: free. At most half are taken.
};

}  // namespace kelvane::client
