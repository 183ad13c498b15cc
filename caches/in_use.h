#pragma once

// Whether the program that owns a cache is running. Some signs are locks, which the purge itself takes
// (client::CacheLock); the others are checked here, repeatedly while the work lasts.

#include <string>
#include <vector>

#include "caches/definition.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// The signs of one root, with "~" and "{1}" replaced.
class Signs {
 public:
  /// `home` is where "~" leads, `home_directory` its descriptor, which must outlive this; -1 without a home.
  Signs(const std::vector<InUse>& in_use, const std::string& home, int home_directory, int root,
        const std::string& wildcard);

  [[nodiscard]] const std::vector<client::CacheLock>& locks() const { return locks_; }
  /// What uses the cache now, or why that cannot be found out; empty when nothing does. Any thread.
  [[nodiscard]] std::string now() const;

 private:
  [[nodiscard]] std::string holderOf(const std::string& link) const;
  [[nodiscard]] std::string present(const std::string& path) const;
  [[nodiscard]] FileDescriptor parentOf(const std::string& path, std::string& name) const;

  // All constant.
  const std::string home_;
  const int home_directory_;
  const int root_;
  std::vector<client::CacheLock> locks_;
  std::vector<std::string> files_;
  std::vector<std::string> links_;
  std::vector<std::string> processes_;
};

/// Whether a link with this target, HOST-PID or IP:+PID, counts as held: its process exists or is on another
/// host, or the target is malformed.
[[nodiscard]] bool isHeld(const std::string& target, const std::string& own_host);

}  // namespace kelvane::caches
