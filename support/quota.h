#pragma once

#include <sys/types.h>
#include <cstdint>
#include <optional>
#include <string>

namespace kelvane {

/// What a user occupies of one file system and may occupy; a limit of 0 is none.
struct QuotaUsage {
  std::uint64_t bytes = 0;
  std::uint64_t bytes_soft = 0;
  std::uint64_t bytes_hard = 0;
  std::uint64_t files = 0;
  std::uint64_t files_soft = 0;
  std::uint64_t files_hard = 0;
};

/// Over: more than a soft limit, or so much of a hard one, which nobody can exceed, that nothing more fits.
[[nodiscard]] bool isOverQuota(const QuotaUsage& usage);

/// Nothing when the file system mounted at `path` keeps no quotas, or may not be asked.
[[nodiscard]] std::optional<QuotaUsage> quotaUsage(const std::string& path, uid_t user);

}  // namespace kelvane
