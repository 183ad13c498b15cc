// Workers of a service in systemd's sandbox.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>

#include "tests/caches/child.h"
#include "tests/caches/machine.h"
#include "tests/caches/sandbox.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using kelvane::tests::PrivateMount;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t block = 4096;

class Sandbox : public Machine {
 protected:
  Sandbox() : var_cache_(PrivateMount::tmpfs("/var/cache", "16m")) {
    addUser(alice);
    addUser(bob);
    for (const uid_t user : {alice, bob}) addFile(user, ".cache/pip/old", block, 50 * day);
    fs::create_directories("/var/cache/apt/archives");
    makeFile("/var/cache/apt/archives/a.deb", block, 50 * day);
    fs::create_directories("/var/cache/man");
    makeFile("/var/cache/man/page", block, 50 * day);
    giveTo(6, "/var/cache/man");
  }

  /// What a purge of both holders freed, and what went wrong.
  std::string purgeIn(Capset capset) {
    return inChild([&] {
      Definition system = pip();
      system.name = "system";
      system.owner = Owner::system;
      system.roots = {"/var/cache/apt/archives", "/var/cache/man"};
      const std::string fault = enterSandbox(capset);
      if (!fault.empty()) return fault;
      start({pip(), system});
      const HolderReport users = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
      const HolderReport root = workers_->purge("system", {}, 4, UINT64_MAX, limits());
      std::string text = std::to_string(users.freed()) + " " + std::to_string(root.freed());
      for (const RootReport& one : root.roots) text += " " + one.reason;
      workers_.reset();
      return text;
    });
  }

 private:
  const PrivateMount var_cache_;
};

TEST_F(Sandbox, LeavesWorkersTheRightsThatTheyNeed) {
  EXPECT_THAT(purgeIn(Capset::allowed), StartsWith("8192 8192"));
  EXPECT_FALSE(has(bob, ".cache/pip/old"));
  EXPECT_FALSE(fs::exists("/var/cache/man/page"));
}

TEST_F(Sandbox, ThatRefusesToDropCapabilitiesKeepsRootsWorkersFromWorking) {
  EXPECT_THAT(purgeIn(Capset::refused), AllOf(StartsWith("8192 0"), HasSubstr("capset")));
  EXPECT_TRUE(fs::exists("/var/cache/apt/archives/a.deb"));
}

}  // namespace
}  // namespace kelvane::caches::tests
