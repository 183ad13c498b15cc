#pragma once

#include <sys/types.h>
#include <array>
#include <cstdint>
#include <string>

#include "client/cache_pattern.h"
#include "client/hard_links.h"
#include "kelvane/cache_directory.h"
#include "platform/foundation/file_descriptor.h"

struct statx;

namespace kelvane::client {

/// What is constant while a cache directory is open.
struct CacheSetup {
  CacheRules rules;
  CachePatterns include;
  CachePatterns exclude;
  FileDescriptor root;
  uid_t owner = 0;       // of the root
  bool extents = false;  // files may share blocks
  [[nodiscard]] bool isUnits() const { return rules.unit == CacheUnit::directory; }
  [[nodiscard]] bool trusts(uid_t user) const;
};

/// Older than any time.
inline constexpr std::int64_t no_time = INT64_MIN;

/// Why rules are invalid; empty when they are valid.
[[nodiscard]] std::string problemIn(const CacheRules& rules);
/// For each urgency, the newest time that may go.
[[nodiscard]] std::array<std::int64_t, urgency_count> newestToGo(const CacheRules& rules, std::int64_t now);

[[nodiscard]] CacheAge ageOf(const struct statx& status);
[[nodiscard]] std::uint64_t bytesOf(const struct statx& status);
[[nodiscard]] dev_t deviceOf(const struct statx& status);
/// The bytes that deleting the file's last name frees at least.
[[nodiscard]] std::uint64_t ownBytesOf(const CacheSetup& setup, int directory, const char* name,
                                       const struct statx& status);

/// Notified of what a walk finds, possibly by two threads.
class CacheAccount {
 public:
  virtual ~CacheAccount() = default;
  [[nodiscard]] virtual bool done() = 0;
  virtual void stay(CacheStay reason, std::uint64_t bytes, std::uint64_t items) = 0;
  /// Something could not be read or deleted.
  virtual void failed(int error) = 0;
};

/// Whether there is time left.
class CacheTime {
 public:
  explicit CacheTime(const CacheLimits& limits) : limits_(limits) {}
  [[nodiscard]] bool isCancelled() const { return limits_.cancellation.isCancelled(); }
  [[nodiscard]] bool isLate() const { return isLate({}); }
  [[nodiscard]] bool isLate(std::chrono::milliseconds grace) const {
    return limits_.deadline != never && std::chrono::steady_clock::now() >= limits_.deadline + grace;
  }

 private:
  static constexpr auto never = std::chrono::steady_clock::time_point::max();
  const CacheLimits& limits_;
};

}  // namespace kelvane::client
