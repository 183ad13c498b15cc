#include "examples/reclaim.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <limits>

#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using examples::CachedFile;
using examples::CacheFolder;
using examples::givenUpAt;
using examples::Seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Seconds everything = std::numeric_limits<Seconds>::max();
constexpr std::size_t size = 64 << 10;

bool never() { return false; }

class ACacheFolder : public testing::Test {
 protected:
  /// A file of 64 KiB, last changed at that second; returns the bytes that it takes.
  std::uint64_t add(const std::string& name, Seconds modified) const {
    directory_.write("cache/" + name, std::string(size, 'x'));
    setModified(name, modified);
    struct stat status {};
    EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
    EXPECT_GT(status.st_blocks, 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }
  void setModified(const std::string& name, Seconds modified) const {
    const timespec times[] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0);
  }
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / "cache/" + name; }
  [[nodiscard]] bool exists(const std::string& name) const {
    return fs::exists(fs::symlink_status(path(name)));
  }
  [[nodiscard]] CacheFolder open() const {
    fs::create_directories(directory_ / "cache");
    std::string reason;
    return std::move(*CacheFolder::open(directory_ / "cache", reason));
  }
  [[nodiscard]] static std::vector<std::string> namesOf(const std::vector<CachedFile>& files) {
    std::vector<std::string> names;
    names.reserve(files.size());
    for (const CachedFile& file : files) names.push_back(file.path);
    return names;
  }

  const test::TemporaryDirectory directory_;
};

TEST_F(ACacheFolder, ListsItsFilesOldestFirstThroughAllItsFolders) {
  add("young", 300);
  add("sub/oldest", 100);
  add("b", 200);
  add("a", 200);
  EXPECT_THAT(namesOf(open().files(everything)), ElementsAre("sub/oldest", "a", "b", "young"));
  EXPECT_THAT(namesOf(open().files(200)), ElementsAre("sub/oldest", "a", "b"));
}

TEST_F(ACacheFolder, DeletesTheOldestFirstAndStopsAtTheAmount) {
  const std::uint64_t first = add("first", 100);
  const std::uint64_t second = add("sub/second", 200);
  add("third", 300);
  const auto reclaimed = open().reclaim(first + 1, everything, never);
  EXPECT_EQ(reclaimed.bytes, first + second);
  EXPECT_EQ(reclaimed.files, 2U);
  EXPECT_FALSE(exists("first"));
  EXPECT_FALSE(exists("sub/second"));
  EXPECT_TRUE(exists("third"));
}

TEST_F(ACacheFolder, DeletesNothingForTheAmountZero) {
  add("file", 100);
  EXPECT_EQ(open().reclaim(0, everything, never).files, 0U);
  EXPECT_TRUE(exists("file"));
}

TEST_F(ACacheFolder, KeepsWhatIsTooYoung) {
  const std::uint64_t old = add("old", 100);
  add("young", 101);
  EXPECT_EQ(open().bytes(100), old);
  EXPECT_EQ(open().reclaim(everything, 100, never).bytes, old);
  EXPECT_TRUE(exists("young"));
}

TEST_F(ACacheFolder, CountsTheBytesOfASparseFileThatItHas) {
  add("sparse", 100);
  ASSERT_EQ(::truncate(path("sparse").c_str(), 1 << 30), 0);
  setModified("sparse", 100);
  struct stat status {};
  ASSERT_EQ(::stat(path("sparse").c_str(), &status), 0);
  const auto has = static_cast<std::uint64_t>(status.st_blocks) * 512;
  ASSERT_LT(has, 1U << 30);
  EXPECT_EQ(open().bytes(everything), has);
  EXPECT_EQ(open().reclaim(1, everything, never).bytes, has);
  EXPECT_FALSE(exists("sparse"));
}

TEST_F(ACacheFolder, CountsAFileWithASecondNameAsNothingAndLeavesIt) {
  add("one", 100);
  fs::create_hard_link(path("one"), directory_ / "outside");
  EXPECT_EQ(open().bytes(everything), 0U);
  const auto reclaimed = open().reclaim(everything, everything, never);
  EXPECT_EQ(reclaimed.bytes, 0U);
  EXPECT_EQ(reclaimed.files, 0U);
  EXPECT_TRUE(exists("one"));
}

TEST_F(ACacheFolder, NeitherFollowsNorDeletesLinks) {
  directory_.write("outside/precious", std::string(size, 'x'));
  const CacheFolder cache = open();
  fs::create_symlink(directory_ / "outside", path("folder"));
  fs::create_symlink(directory_ / "outside/precious", path("file"));
  EXPECT_THAT(cache.files(everything), IsEmpty());
  EXPECT_EQ(cache.reclaim(everything, everything, never).bytes, 0U);
  EXPECT_TRUE(fs::exists(directory_ / "outside/precious"));
  EXPECT_TRUE(exists("folder"));
}

TEST_F(ACacheFolder, DoesNotLeaveWhenAFolderIsReplacedByALinkMidway) {
  add("a/first", 100);
  add("b/precious", 200);
  directory_.write("outside/precious", std::string(size, 'x'));
  int asked = 0;
  const auto reclaimed = open().reclaim(everything, everything, [&] {
    if (++asked == 2) {
      fs::rename(path("b"), directory_ / "b");
      fs::create_symlink(directory_ / "outside", path("b"));
    }
    return false;
  });
  EXPECT_EQ(reclaimed.files, 1U);
  EXPECT_TRUE(fs::exists(directory_ / "outside/precious"));
  EXPECT_TRUE(fs::exists(directory_ / "b/precious"));
}

TEST_F(ACacheFolder, PassesOverFilesThatVanishMidwayAndDoesNotCountThem) {
  const std::uint64_t first = add("first", 100);
  add("second", 200);
  const std::uint64_t third = add("third", 300);
  int asked = 0;
  const auto reclaimed = open().reclaim(first + third, everything, [&] {
    if (++asked == 2) fs::remove(path("second"));
    return false;
  });
  EXPECT_EQ(reclaimed.bytes, first + third);
  EXPECT_EQ(reclaimed.files, 2U);
}

TEST_F(ACacheFolder, PassesOverAFileThatIsUsedAgainMidway) {
  add("first", 100);
  add("second", 100);
  int asked = 0;
  open().reclaim(everything, 100, [&] {
    if (++asked == 2) setModified("second", 101);
    return false;
  });
  EXPECT_FALSE(exists("first"));
  EXPECT_TRUE(exists("second"));
}

TEST_F(ACacheFolder, PassesOverAFileThatGetsASecondNameMidway) {
  add("first", 100);
  add("second", 200);
  int asked = 0;
  const auto reclaimed = open().reclaim(everything, everything, [&] {
    if (++asked == 2) fs::create_hard_link(path("second"), directory_ / "kept");
    return false;
  });
  EXPECT_EQ(reclaimed.files, 1U);
  EXPECT_TRUE(exists("second"));
}

TEST_F(ACacheFolder, StopsWhenCancelledMidway) {
  const std::uint64_t first = add("first", 100);
  add("second", 200);
  int asked = 0;
  const auto reclaimed = open().reclaim(everything, everything, [&] { return ++asked == 2; });
  EXPECT_EQ(reclaimed.bytes, first);
  EXPECT_TRUE(exists("second"));
}

TEST_F(ACacheFolder, LeavesWhatIsNoFile) {
  const CacheFolder cache = open();
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  fs::create_directory(path("empty"));
  EXPECT_EQ(cache.reclaim(everything, everything, never).files, 0U);
  EXPECT_TRUE(exists("pipe"));
  EXPECT_TRUE(exists("empty"));
}

TEST_F(ACacheFolder, ThatIsNotThereSaysWhy) {
  std::string reason;
  EXPECT_FALSE(CacheFolder::open(directory_ / "missing", reason));
  EXPECT_EQ(reason, std::strerror(ENOENT));
}

TEST(Urgency, GivesUpYoungerFilesTheHigherItIs) {
  EXPECT_EQ(givenUpAt(1, 1000, 400), 700);
  EXPECT_EQ(givenUpAt(2, 1000, 400), 800);
  EXPECT_EQ(givenUpAt(3, 1000, 400), 900);
  EXPECT_EQ(givenUpAt(4, 1000, 400), everything);
}

TEST(Urgency, BeyondItsBoundsIsTakenAsTheNearest) {
  EXPECT_EQ(givenUpAt(0, 1000, 400), givenUpAt(1, 1000, 400));
  EXPECT_EQ(givenUpAt(-7, 1000, 400), givenUpAt(1, 1000, 400));
  EXPECT_EQ(givenUpAt(5, 1000, 400), everything);
}

}  // namespace
}  // namespace kelvane::tests
