// Whether the program that owns a cache is running.

#include "caches/in_use.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>

#include "tests/caches/temporary_directory.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string host() {
  utsname names{};
  ::uname(&names);
  return names.nodename;
}

/// A child with this name, optionally of another user, that lives as long as this.
class NamedProcess {
 public:
  explicit NamedProcess(const char* name, uid_t user = ::geteuid()) {
    int ready[2];
    EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    id_ = ::fork();
    if (id_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::prctl(PR_SET_NAME, name);
      if (user != ::geteuid() && ::setresuid(user, user, user) != 0) ::_exit(1);
      [[maybe_unused]] const ssize_t told = ::write(ready[1], "x", 1);
      while (true) ::pause();
    }
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~NamedProcess() { end(); }
  NamedProcess(const NamedProcess&) = delete;
  NamedProcess& operator=(const NamedProcess&) = delete;
  void end() {
    if (id_ <= 0) return;
    ::kill(id_, SIGKILL);
    ::waitpid(id_, nullptr, 0);
    id_ = 0;
  }
  [[nodiscard]] pid_t id() const { return id_; }

 private:
  pid_t id_ = 0;
};

class InUseSigns : public testing::Test {
 protected:
  InUseSigns() : descriptor_(::open(home_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  Signs signs(const InUse& sign, const std::string& wildcard = {}) {
    return Signs({sign}, home_.path(), descriptor_.get(), descriptor_.get(), wildcard);
  }

  const TemporaryDirectory home_;
  const FileDescriptor descriptor_;
};

TEST_F(InUseSigns, AreLocksWithTheirPathsPutInPlace) {
  const std::vector<InUse> in_use = {{InUse::Kind::flock, "~/.tool/{1}/lock"},
                                     {InUse::Kind::record, "{1}.lock"},
                                     {InUse::Kind::exists, "/run/{1}{1}"}};
  const Signs found(in_use, home_.path(), -1, -1, "work");
  ASSERT_EQ(found.locks().size(), 3U);
  EXPECT_EQ(found.locks()[0].path, home_ / ".tool/work/lock");
  EXPECT_EQ(found.locks()[1].path, "work.lock");
  EXPECT_EQ(found.locks()[1].kind, client::CacheLock::Kind::record);
  EXPECT_EQ(found.locks()[2].path, "/run/workwork");
  EXPECT_EQ(found.now(), "");
}

TEST_F(InUseSigns, AreProcessesOfTheUserByTheirWholeName) {
  const Signs browser = signs({InUse::Kind::process, "cache-test-browser"});  // the kernel keeps 15 bytes
  EXPECT_EQ(browser.now(), "");
  NamedProcess running("cache-test-brow");
  EXPECT_EQ(browser.now(), "\"cache-test-brow\" is running");
  EXPECT_EQ(signs({InUse::Kind::process, "cache-test"}).now(), "");
  running.end();
  EXPECT_EQ(browser.now(), "");
}

TEST_F(InUseSigns, AreNotProcessesOfOthers) {
  if (::geteuid() != 0) FAIL() << "needs root to be another user";
  const Signs browser = signs({InUse::Kind::process, "cache-test-brow"});
  const NamedProcess others("cache-test-brow", 61'001);
  EXPECT_EQ(browser.now(), "");
}

TEST_F(InUseSigns, AreLinksToAProcessThatLives) {
  const Signs lock = signs({InUse::Kind::pid_link, "~/profiles/{1}/lock"}, "work");
  EXPECT_EQ(lock.now(), "");
  fs::create_directories(home_ / "profiles/work");
  EXPECT_EQ(lock.now(), "");
  NamedProcess running("some");
  fs::create_symlink(host() + "-" + std::to_string(running.id()), home_ / "profiles/work/lock");
  EXPECT_THAT(lock.now(), HasSubstr("uses it"));
  running.end();
  EXPECT_EQ(lock.now(), "");
}

TEST_F(InUseSigns, AreWhateverIsNotALinkWhereOneIsExpected) {
  write(home_ / "lock", "x");
  EXPECT_NE(signs({InUse::Kind::pid_link, "lock"}).now(), "");
  EXPECT_NE(signs({InUse::Kind::pid_link, "~/lock"}).now(), "");
}

TEST_F(InUseSigns, AreNotLookedForThroughLinks) {
  const TemporaryDirectory elsewhere;
  fs::create_directory_symlink(elsewhere.path(), home_ / "profiles");
  EXPECT_NE(signs({InUse::Kind::pid_link, "~/profiles/lock"}).now(), "");
}

TEST(LinkTarget, HoldsUnlessItsProcessIsKnownToBeGone) {
  const std::string own = std::to_string(::getpid());
  pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  ::waitpid(gone, nullptr, 0);
  const std::string dead = std::to_string(gone);
  EXPECT_TRUE(isHeld("box-" + own, "box"));
  EXPECT_FALSE(isHeld("box-" + dead, "box"));
  EXPECT_FALSE(isHeld("my-box-" + dead, "my-box"));
  EXPECT_TRUE(isHeld("other-" + dead, "box"));
  EXPECT_TRUE(isHeld("127.0.1.1:+" + own, "box"));
  EXPECT_FALSE(isHeld("127.0.1.1:+" + dead, "box"));
  EXPECT_TRUE(isHeld("192.168.1.7:+" + dead, "box"));
  EXPECT_TRUE(isHeld("box", "box"));
  EXPECT_TRUE(isHeld("box-12x", "box"));
  EXPECT_TRUE(isHeld("box--1", "box"));
}

}  // namespace
}  // namespace kelvane::caches::tests
