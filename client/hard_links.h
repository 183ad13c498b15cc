#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <tuple>
#include <vector>

namespace kelvane::client {

/// When something was last touched; the number tells what is of the same moment apart.
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
  std::uint32_t names = 0;  // all of them, wherever they are
  std::uint32_t seen = 0;   // of these, those in what may go
  std::uint32_t here = 0;   // those in the unit that is being looked at
  [[nodiscard]] bool closed() const { return seen == names; }
};

/// Counts names of files that have several. Its size is bounded: of further files nothing is known, which
/// leaves them where they are.
class HardLinks {
 public:
  static constexpr std::size_t most_files = 131'072;
  /// Those with more are not counted either: before one of them goes, all are looked up at once.
  static constexpr std::uint32_t most_names = 1024;

  /// Null when there is no room for it. One that was not known has nothing seen.
  LinkedFile* find(std::uint64_t device, std::uint64_t number, std::uint32_t names);
  /// Null when it is not known.
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
