#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <array>

namespace kelvane::tests {

/// Removes the capability to override file modes from this thread, even if it is root's.
class OrdinaryRights {
 public:
  OrdinaryRights() {
    ::syscall(SYS_capget, &header_, before_.data());
    auto fewer = before_;
    fewer[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    EXPECT_EQ(::syscall(SYS_capset, &header_, fewer.data()), 0);
  }
  ~OrdinaryRights() { ::syscall(SYS_capset, &header_, before_.data()); }
  OrdinaryRights(const OrdinaryRights&) = delete;
  OrdinaryRights& operator=(const OrdinaryRights&) = delete;

 private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> before_{};
};

}  // namespace kelvane::tests
