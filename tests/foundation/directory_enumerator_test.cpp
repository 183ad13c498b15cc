#include "platform/foundation/directory_enumerator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/foundation/deep_directories.h"
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
  ASSERT_EQ(::seteuid(self == 0 ? 65534 : self), 0);  // root reads every directory
  const Paths paths = walk(directory_.path());
  ASSERT_EQ(::seteuid(self), 0);
  std::filesystem::permissions(directory_ / "closed", std::filesystem::perms::all);
  EXPECT_EQ(paths, (Paths{"closed", "open", "open/file"}));
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST_F(DirectoryEnumeratorTest, NeitherDepthNorTheLengthOfAPathEndsAWalk) {
  const std::string name(100, 'd');
  const std::string deepest = test::makeDeepDirectories(directory_.path(), name, 200, [](int directory) {
    test::writeFileAt(directory, "a", "");
    test::writeFileAt(test::makeDirectoryAt(directory, "z").get(), "file", "");
  });
  ASSERT_GT(deepest.size(), std::size_t{PATH_MAX});
  const Paths paths = walk(directory_.path());
  Paths expected;
  std::string path;
  for (int level = 0; level < 200; ++level) {
    path += (level == 0 ? "" : "/") + name;
    expected.insert(expected.end(), {path, path + "/a"});
  }
  for (; !path.empty(); path.resize(path.size() > name.size() ? path.size() - name.size() - 1 : 0))
    expected.insert(expected.end(), {path + "/z", path + "/z/file"});
  EXPECT_EQ(paths, expected);
}

TEST_F(DirectoryEnumeratorTest, ADeepWalkHoldsAFewDescriptorsOnly) {
  test::makeDeepDirectories(directory_.path(), "d", 200,
                            [](int directory) { test::makeDirectoryAt(directory, "z"); });
  const std::size_t before = openDescriptors();
  std::size_t most = 0;
  std::size_t entries = 0;
  enumerateDirectory(directory_.path(), [&](const std::string&) {
    most = std::max(most, openDescriptors() - before);
    ++entries;
  });
  EXPECT_EQ(entries, 400U);
  EXPECT_EQ(most, DirectoryEnumerator::most_open);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DirectoryEnumeratorTest, AWalkWhoseDirectoryIsMovedAwayDoesNotLeaveItsTree) {
  directory_.write("other/z/not in the tree", "");
  std::filesystem::create_directories(directory_ / "tree/z");
  const std::string deepest = test::makeDeepDirectories(
      directory_ / "tree", "d", 100, [](int directory) { test::makeDirectoryAt(directory, "z"); });
  const std::string tenth = "d/d/d/d/d/d/d/d/d/d";
  Paths paths;
  enumerateDirectory(directory_ / "tree", [&](const std::string& path) {
    if (path == deepest) std::filesystem::rename(directory_ / "tree/" + tenth, directory_ / "other/d");
    paths.push_back(path);
  });
  EXPECT_EQ(paths.size(), 201U);  // each with its own name, whether it could be entered or not
  EXPECT_EQ(paths.back(), "z");
  for (const std::string& path : paths) EXPECT_EQ(path.find("not in"), std::string::npos) << path;
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
