// Opening directories without waiting for a mounted file system.

#include "caches/mounts.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <filesystem>

#include "support/mount_table.h"
#include "tests/caches/hanging_mount.h"
#include "tests/caches/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using kelvane::tests::PrivateMount;
using testing::HasSubstr;

Mounts present() { return Mounts(readMountTable().value()); }

TEST(Directory, IsOpenedAcrossLocalMounts) {
  const TemporaryDirectory directory;
  fs::create_directories(directory / "volume");
  const PrivateMount volume = PrivateMount::tmpfs(directory / "volume", "1m");
  fs::create_directories(directory / "volume/home/alice");
  const OpenedDirectory opened = openDirectory(present(), directory / "volume//home/alice/", Links::refused);
  ASSERT_TRUE(opened.directory) << opened.reason;
  EXPECT_EQ(opened.path, directory / "volume/home/alice");
  struct stat status {};
  struct stat expected {};
  ::fstat(opened.directory.get(), &status);
  ::stat(opened.path.c_str(), &expected);
  EXPECT_EQ(status.st_ino, expected.st_ino);
}

TEST(Directory, BehindAFileSystemThatHangsIsNotTouched) {
  const TemporaryDirectory directory;
  fs::create_directories(directory / "remote");
  HangingMount hanging(directory / "remote");
  EXPECT_THAT(openDirectory(present(), directory / "remote", Links::refused).reason,
              HasSubstr("may not answer"));
  EXPECT_THAT(openDirectory(present(), directory / "remote/home/alice", Links::refused).reason,
              HasSubstr("type fuse"));
  EXPECT_EQ(hanging.requests(), 0);
}

TEST(Directory, OnWhichSomethingWasMountedSinceTheTableWasReadIsNotTouched) {
  const TemporaryDirectory directory;
  fs::create_directories(directory / "home");
  const Mounts before = present();
  HangingMount hanging(directory / "home");
  EXPECT_THAT(openDirectory(before, directory / "home", Links::refused).reason,
              HasSubstr("not in the mount table: it may be new"));
  EXPECT_EQ(hanging.requests(), 0);
}

TEST(Directory, OfAnAutomountIsNotLookedUp) {
  const TemporaryDirectory directory;
  fs::create_directories(directory / "home/alice");
  std::vector<MountEntry> table = readMountTable().value();
  MountEntry automount = table.front();
  automount.target = directory / "home";
  automount.type = "autofs";
  table.push_back(automount);
  EXPECT_THAT(openDirectory(Mounts(table), directory / "home/alice", Links::refused).reason,
              HasSubstr("autofs"));
  EXPECT_THAT(Mounts(table).refusal(directory / "home"), HasSubstr("autofs"));
  // The topmost mount counts.
  automount.type = "ext4";
  table.push_back(automount);
  EXPECT_EQ(Mounts(table).refusal(directory / "home/alice"), "");
}

TEST(Directory, IsFoundThroughLinksOfRootOnly) {
  if (::geteuid() != 0) FAIL() << "needs root to make links of others";
  const TemporaryDirectory directory;
  fs::create_directories(directory / "data/alice");
  fs::create_directory_symlink(directory / "data", directory / "home");
  const OpenedDirectory opened = openDirectory(present(), directory / "home/alice", Links::ofRoot);
  EXPECT_EQ(opened.path, directory / "data/alice") << opened.reason;
  EXPECT_THAT(openDirectory(present(), directory / "home/alice", Links::refused).reason,
              HasSubstr("symbolic link"));
  ASSERT_EQ(::lchown((directory / "home").c_str(), 12345, 12345), 0);
  EXPECT_THAT(openDirectory(present(), directory / "home/alice", Links::ofRoot).reason,
              HasSubstr("not root's"));
}

TEST(Directory, BehindALoopOfLinksIsGivenUp) {
  const TemporaryDirectory directory;
  fs::create_directory_symlink("b", directory / "a");
  fs::create_directory_symlink("a", directory / "b");
  EXPECT_THAT(openDirectory(present(), directory / "a/home", Links::ofRoot).reason, HasSubstr("too many"));
}

TEST(Directory, ThatIsAFileOrNotThereIsRefusedWithTheReason) {
  const TemporaryDirectory directory;
  write(directory / "file", "x");
  EXPECT_EQ(openDirectory(present(), directory / "file", Links::refused).error, ENOTDIR);
  EXPECT_EQ(openDirectory(present(), directory / "missing", Links::refused).error, ENOENT);
}

}  // namespace
}  // namespace kelvane::caches::tests
