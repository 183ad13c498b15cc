// A worker that becomes a user for good.

#include "caches/identity.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <fstream>
#include <sstream>

#include "tests/caches/child.h"
#include "tests/caches/temporary_directory.h"

namespace kelvane::caches::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;

const User alice{61'001, 61'002, "alice", "/home/alice"};

std::string ownStatus() {
  std::stringstream text;
  text << std::ifstream("/proc/self/status").rdbuf();
  return text.str();
}

class Identity : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) FAIL() << "needs root to become others";
  }
};

TEST_F(Identity, IsTheUsersInEveryRespect) {
  const std::string status = inChild([] {
    const gid_t many[] = {0, 4, 61'002};
    if (::setgroups(3, many) != 0) return std::string("no groups");
    const std::string fault = becomeForGood(alice);
    return fault + ownStatus();
  });
  EXPECT_THAT(status,
              AllOf(HasSubstr("\nUid:\t61001\t61001\t61001\t61001\n"),
                    HasSubstr("\nGid:\t61002\t61002\t61002\t61002\n"), HasSubstr("\nGroups:\t61002 \n"),
                    HasSubstr("\nUmask:\t0077\n"), HasSubstr("\nNoNewPrivs:\t1\n")));
  for (const char* const set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_THAT(status, HasSubstr(std::string("\n") + set + ":\t0000000000000000\n"));
  }
}

TEST_F(Identity, CannotComeBack) {
  EXPECT_EQ(inChild([] {
              std::string fault = becomeForGood(alice);
              if (::setuid(0) == 0 || ::seteuid(0) == 0 || ::setresuid(0, 0, 0) == 0) fault += "root again";
              if (::setgid(0) == 0 || ::setegid(0) == 0) fault += "root's group again";
              if (::setgroups(0, nullptr) == 0) fault += "groups again";
              if (::open("/etc/shadow", O_RDONLY) >= 0) fault += "reads what is root's";
              return fault;
            }),
            "");
}

TEST_F(Identity, OfRootIsThatOfAnOwnerLikeAnyOther) {
  const TemporaryDirectory directory;
  write(directory / "private/file", "x");
  giveTo(alice.id, directory / "private");
  ::chmod((directory / "private").c_str(), 0700);
  EXPECT_EQ(inChild([&] {
              std::string fault = becomeForGood({0, 0, "root", "/root"});
              if (::getuid() != 0) fault += "not root";
              if (::open((directory / "private/file").c_str(), O_RDONLY) >= 0)
                fault += "reads what is alice's";
              if (::setuid(alice.id) == 0) fault += "becomes another user";
              if (::chown(directory.path().c_str(), alice.id, alice.id) == 0) fault += "gives files away";
              return fault;
            }),
            "");
}

TEST_F(Identity, IsNotTakenByAProcessThatMayNotGiveItsRightsUp) {
  const auto withoutCapability = [](int capability) {
    return inChild([=] {
      __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
      __user_cap_data_struct all[_LINUX_CAPABILITY_U32S_3] = {};
      ::syscall(SYS_capget, &header, all);
      all[0].effective &= ~(1U << capability);
      all[0].permitted &= ~(1U << capability);
      if (::syscall(SYS_capset, &header, all) != 0) return std::string("no capset");
      return becomeForGood(alice);
    });
  };
  EXPECT_THAT(withoutCapability(CAP_SETGID), HasSubstr("setgroups"));
  EXPECT_THAT(withoutCapability(CAP_SETUID), HasSubstr("setresuid"));
}

TEST_F(Identity, IsRefusedWhenRootsRightsWouldSurvive) {
  // With this flag capabilities outlive the change of IDs.
  EXPECT_EQ(inChild([] {
              ::prctl(PR_SET_KEEPCAPS, 1);
              std::string fault = becomeForGood(alice);
              return fault + (::setuid(0) == 0 ? "root again" : "");
            }),
            "");
}

TEST(Worker, WritesNoBytesAndLeavesNoCore) {
  const TemporaryDirectory directory;
  EXPECT_EQ(inChild([&] {
              std::string fault = limitResources();
              ::signal(SIGXFSZ, SIG_IGN);
              const int file = ::open((directory / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
              if (file < 0) fault += "cannot open a lock file for writing";
              if (::write(file, "x", 1) >= 0) fault += "wrote";
              rlimit core{1, 1};
              ::getrlimit(RLIMIT_CORE, &core);
              if (core.rlim_max != 0) fault += "dumps core";
              return fault;
            }),
            "");
}

TEST(Worker, StaysWhoItIsWithoutRootsRights) {
  const User own{::geteuid(), ::getegid(), "", ""};
  EXPECT_EQ(inChild([&] { return stayForGood(own); }), "");
  EXPECT_NE(inChild([&] { return stayForGood({own.id + 1, own.group, "", ""}); }), "");
}

}  // namespace
}  // namespace kelvane::caches::tests
