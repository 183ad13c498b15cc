#include "platform/foundation/directory_enumerator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/foundation/temporary_directory.h"

namespace kelvane {
namespace {

using Paths = std::vector<std::string>;

Paths walk(const std::string& directory) {
  Paths paths;
  enumerateDirectory(directory, [&](const std::string& path) { paths.push_back(path); });
  return paths;
}

class DirectoryEnumeratorTest : public ::testing::Test {
 protected:
  test::TemporaryDirectory directory_;
};

TEST_F(DirectoryEnumeratorTest, EveryEntryAtAnyDepthIsReportedWhateverItsName) {
  for (const char* file :
       {"a.plist", "b", ".hidden", "folder/c.txt", "folder/deep/er/d", "folder/ with blank\n"}) {
    directory_.write(file, "");
  }
  EXPECT_EQ(walk(directory_.path()),
            (Paths{".hidden", "a.plist", "b", "folder", "folder/ with blank\n", "folder/c.txt", "folder/deep",
                   "folder/deep/er", "folder/deep/er/d"}));
}

TEST_F(DirectoryEnumeratorTest, EntriesOfOneFolderComeInTheOrderOfTheirBytes) {
  for (const char* file : {"b", "B", "\xc3\xa9", "a", "_", "10", "9"}) directory_.write(file, "");
  EXPECT_EQ(walk(directory_.path()), (Paths{"10", "9", "B", "_", "a", "b", "\xc3\xa9"}));
}

TEST_F(DirectoryEnumeratorTest, AFolderComesRightBeforeItsContents) {
  for (const char* file : {"a/x", "a.x", "a0", "b"}) directory_.write(file, "");
  EXPECT_EQ(walk(directory_.path()), (Paths{"a", "a/x", "a.x", "a0", "b"}));
}

TEST_F(DirectoryEnumeratorTest, ADirectoryNamedWithATrailingSlashGivesTheSamePaths) {
  directory_.write("folder/file", "");
  EXPECT_EQ(walk(directory_.path() + "//"), (Paths{"folder", "folder/file"}));
}

TEST_F(DirectoryEnumeratorTest, AMissingDirectoryYieldsNothing) {
  EXPECT_EQ(walk(directory_ / "missing"), Paths{});
  EXPECT_EQ(walk(""), Paths{});
}

TEST_F(DirectoryEnumeratorTest, AFileInPlaceOfTheDirectoryYieldsNothing) {
  directory_.write("file", "");
  EXPECT_EQ(walk(directory_ / "file"), Paths{});
}

TEST_F(DirectoryEnumeratorTest, SymbolicLinksAreReportedAndNotFollowed) {
  directory_.write("real/file", "");
  std::filesystem::create_directory_symlink("real", directory_ / "link");
  std::filesystem::create_directory_symlink("..", directory_ / "real/up");
  std::filesystem::create_symlink("nowhere", directory_ / "dangling");
  EXPECT_EQ(walk(directory_.path()), (Paths{"dangling", "link", "real", "real/file", "real/up"}));
}

TEST_F(DirectoryEnumeratorTest, TheDirectoryItselfMayBeASymbolicLink) {
  directory_.write("real/file", "");
  std::filesystem::create_directory_symlink("real", directory_ / "link");
  EXPECT_EQ(walk(directory_ / "link"), (Paths{"file"}));
}

TEST_F(DirectoryEnumeratorTest, AFIFOIsReportedAndNotWaitedFor) {
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(walk(directory_.path()), (Paths{"fifo"}));
}

TEST_F(DirectoryEnumeratorTest, AnUnreadableFolderIsPassedOver) {
  directory_.write("closed/file", "");
  directory_.write("open/file", "");
  std::filesystem::permissions(directory_.path(), std::filesystem::perms::all);
  std::filesystem::permissions(directory_ / "closed", std::filesystem::perms::none);
  const uid_t self = ::geteuid();
  ASSERT_EQ(::seteuid(self == 0 ? 65534 : self), 0);  // root reads every folder
  const Paths paths = walk(directory_.path());
  ASSERT_EQ(::seteuid(self), 0);
  std::filesystem::permissions(directory_ / "closed", std::filesystem::perms::all);
  EXPECT_EQ(paths, (Paths{"closed", "open", "open/file"}));
}

TEST_F(DirectoryEnumeratorTest, AFolderBeyondTheDepthLimitIsReportedAndNotEntered) {
  directory_.write("1/2/3/4", "");
  DirectoryEnumerator enumerator(directory_.path(), 2);
  Paths paths;
  while (const auto entry = enumerator.next()) paths.push_back(*entry);
  EXPECT_EQ(paths, (Paths{"1", "1/2"}));

  std::string deep = directory_ / "deep";
  for (int level = 0; level < 100; ++level) deep += "/d";
  std::filesystem::create_directories(deep);
  EXPECT_EQ(walk(directory_ / "deep").size(), DirectoryEnumerator::depth_limit);
}

TEST_F(DirectoryEnumeratorTest, AFolderRemovedDuringTheWalkEndsItsPartOnly) {
  for (const char* file : {"a/1", "b/1", "c"}) directory_.write(file, "");
  Paths paths;
  enumerateDirectory(directory_.path(), [&](const std::string& path) {
    paths.push_back(path);
    if (path == "a") std::filesystem::remove_all(directory_ / "b");
  });
  EXPECT_EQ(paths, (Paths{"a", "a/1", "b", "c"}));
}

TEST_F(DirectoryEnumeratorTest, AFinishedWalkStaysFinished) {
  directory_.write("file", "");
  DirectoryEnumerator enumerator(directory_.path());
  EXPECT_EQ(enumerator.next(), "file");
  EXPECT_EQ(enumerator.next(), std::nullopt);
  EXPECT_EQ(enumerator.next(), std::nullopt);
}

}  // namespace
}  // namespace kelvane
