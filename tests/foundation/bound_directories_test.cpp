// Directories that are mounted inside themselves. Runs in its own mount namespace.

#include <sys/mount.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/directory_enumerator.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane {
namespace {

const bool private_mounts = tests::enterPrivateMounts();

std::vector<std::string> walk(const std::string& directory) {
  std::vector<std::string> paths;
  enumerateDirectory(directory, [&](const std::string& path) { paths.push_back(path); });
  return paths;
}

class BoundDirectories : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  }
  [[nodiscard]] tests::PrivateMount bind(const std::string& what, const std::string& where) const {
    return {"", directory_ / what, directory_ / where, MS_BIND};
  }
  test::TemporaryDirectory directory_;
};

TEST_F(BoundDirectories, ADirectoryMountedInsideItselfIsReportedThereAndNotEnteredAgain) {
  directory_.write("top/a/b/file", "");
  std::filesystem::create_directories(directory_ / "top/a/b/top");
  const auto cycle = bind("top", "top/a/b/top");
  EXPECT_EQ(walk(directory_ / "top"), (std::vector<std::string>{"a", "a/b", "a/b/file", "a/b/top"}));
}

TEST_F(BoundDirectories, AWalkOfDirectoriesMountedInsideEachOtherEnds) {
  directory_.write("one/file", "");
  directory_.write("two/file", "");
  std::filesystem::create_directories(directory_ / "one/two");
  std::filesystem::create_directories(directory_ / "two/one");
  const auto two_in_one = bind("two", "one/two");
  const auto one_in_two = bind("one", "one/two/one");
  EXPECT_EQ(walk(directory_ / "one"), (std::vector<std::string>{"file", "two", "two/file", "two/one"}));
}

TEST_F(BoundDirectories, ADirectoryMountedBesideItselfIsWalkedAtBothPlaces) {
  directory_.write("top/a/file", "");
  std::filesystem::create_directories(directory_ / "top/b");
  const auto both = bind("top/a", "top/b");
  EXPECT_EQ(walk(directory_ / "top"), (std::vector<std::string>{"a", "a/file", "b", "b/file"}));
}

TEST_F(BoundDirectories, AFileSystemMountedInTheTreeIsWalkedAndTheWalkFindsItsWayBack) {
  std::filesystem::create_directories(directory_ / "top/a/deep");
  directory_.write("top/z/file", "");
  const auto other = tests::PrivateMount::tmpfs(directory_ / "top/a/deep", "1m");
  std::string deep = directory_ / "top/a/deep";
  std::vector<std::string> expected{"a", "a/deep"};
  for (std::size_t level = 0; level <= DirectoryEnumerator::most_open; ++level) {
    deep += "/d";
    expected.push_back(expected.back() + "/d");
  }
  std::filesystem::create_directories(deep);
  expected.insert(expected.end(), {"z", "z/file"});
  EXPECT_EQ(walk(directory_ / "top"), expected);
}

}  // namespace
}  // namespace kelvane
