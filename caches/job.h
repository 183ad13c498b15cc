#pragma once

// The job of a worker. The main process writes it, the spawner reads it and passes it to the worker that it
// forks.

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::caches {

/// The user that a worker becomes.
struct User {
  uid_t id = 0;
  gid_t group = 0;
  std::string name;
  std::string home;
};

/// Identifies a root independently of its name.
struct RootKey {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  friend auto operator<=>(const RootKey&, const RootKey&) = default;
};

struct Job {
  enum class Kind : std::uint8_t {
    owners,  // finds the owners of a system holder's roots
    survey,
    purge,
    list,
  };
  /// How much to free in one root.
  struct Share {
    RootKey root;
    std::uint64_t amount = 0;
  };
  static constexpr std::size_t most_shares = 1024;
  static constexpr std::size_t longest_path = 4096;
  static constexpr std::size_t longest_message = std::size_t{64} << 10;

  Kind kind = Kind::survey;
  std::uint32_t definition = 0;  // its index among those that the spawner knows
  User user;                     // the name is not sent
  std::string volume;            // empty: all
  int urgency = 0;               // of a purge or list, with the next two
  std::int64_t newest = 0;       // the cut
  std::vector<Share> shares;
  std::int64_t now = 0;  // seconds since 1970
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

/// Empty when a path or the number of shares exceeds its limit.
[[nodiscard]] std::string encode(const Job& job);
[[nodiscard]] std::optional<Job> decodeJob(const std::string& message);

}  // namespace kelvane::caches
