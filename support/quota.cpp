#include "support/quota.h"

#include <fcntl.h>
#include <sys/quota.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

bool isOverQuota(const QuotaUsage& usage) {
  constexpr std::uint64_t least_bytes = 4096;  // that a file system gives away at a time
  const auto over = [](std::uint64_t used, std::uint64_t least, std::uint64_t soft, std::uint64_t hard) {
    return (soft != 0 && used > soft) || (hard != 0 && used + least > hard);
  };
  return over(usage.bytes, least_bytes, usage.bytes_soft, usage.bytes_hard) ||
         over(usage.files, 1, usage.files_soft, usage.files_hard);
}

std::optional<QuotaUsage> quotaUsage(const std::string& path, uid_t user) {
  // By the mount and not by its device, which the process need not be able to see.
  const FileDescriptor mount(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  dqblk quota{};
  if (::syscall(SYS_quotactl_fd, mount.get(), QCMD(Q_GETQUOTA, USRQUOTA), user, &quota) != 0) {
    const bool has_nothing_there = mount && errno == ENOENT;  // quotas are kept, and none on this user
    return has_nothing_there ? std::optional(QuotaUsage()) : std::nullopt;
  }
  constexpr std::uint64_t block = 1024;  // the unit of the limits; what is used is in bytes
  return QuotaUsage{quota.dqb_curspace,  quota.dqb_bsoftlimit * block, quota.dqb_bhardlimit * block,
                    quota.dqb_curinodes, quota.dqb_isoftlimit,         quota.dqb_ihardlimit};
}

}  // namespace kelvane
