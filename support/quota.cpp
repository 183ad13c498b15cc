#include "support/quota.h"

#include <sys/quota.h>

namespace kelvane {

bool isOverQuota(const QuotaUsage& usage) {
  const auto over = [](std::uint64_t used, std::uint64_t soft, std::uint64_t hard) {
    return (soft != 0 && used > soft) || (hard != 0 && used >= hard);
  };
  return over(usage.bytes, usage.bytes_soft, usage.bytes_hard) ||
         over(usage.files, usage.files_soft, usage.files_hard);
}

std::optional<QuotaUsage> quotaUsage(const std::string& device, uid_t user) {
  dqblk quota{};
  if (::quotactl(QCMD(Q_GETQUOTA, USRQUOTA), device.c_str(), static_cast<int>(user),
                 reinterpret_cast<char*>(&quota)) != 0) {
    return std::nullopt;
  }
  constexpr std::uint64_t block = 1024;  // the unit of the limits; what is used is in bytes
  return QuotaUsage{quota.dqb_curspace,  quota.dqb_bsoftlimit * block, quota.dqb_bhardlimit * block,
                    quota.dqb_curinodes, quota.dqb_isoftlimit,         quota.dqb_ihardlimit};
}

}  // namespace kelvane
