// Expansion of written roots to directories.

#include "caches/roots.h"

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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Roots : public testing::Test {
 protected:
  std::vector<Root> expand(const std::string& written) {
    const Mounts mounts(readMountTable().value());
    const Base base{mounts, openDirectory(mounts, home_.path(), Links::refused)};
    return expandRoot(base, written);
  }
  std::vector<std::string> paths(const std::string& written) {
    std::vector<std::string> result;
    for (const Root& root : expand(written)) {
      EXPECT_TRUE(root.directory) << root.path << ": " << root.reason;
      result.push_back(root.path);
    }
    return result;
  }
  std::string reason(const std::string& written) {
    const std::vector<Root> roots = expand(written);
    EXPECT_THAT(roots, SizeIs(1)) << written;
    if (roots.size() != 1) return {};
    EXPECT_FALSE(roots.front().directory);
    return roots.front().reason;
  }

  TemporaryDirectory home_;
};

TEST_F(Roots, BeginAtTheHomeOrAtTheCacheDirectoryOfTheUser) {
  fs::create_directories(home_ / ".cache/pip");
  EXPECT_THAT(paths("~/.cache/pip"), ElementsAre(home_ / ".cache/pip"));
  EXPECT_THAT(paths("${XDG_CACHE_HOME}/pip"), ElementsAre(home_ / ".cache/pip"));
}

TEST_F(Roots, ThatDoNotExistAreLeftOut) {
  write(home_ / ".cache/file", "x");
  EXPECT_THAT(expand("~/.cache/npm"), IsEmpty());
  EXPECT_THAT(expand("~/.cache/file"), IsEmpty());
  EXPECT_THAT(expand("~/.cache/file/below"), IsEmpty());
}

TEST_F(Roots, ThatLeaveTheAllowedPlacesAreRefused) {
  EXPECT_THAT(reason("${EDITOR}/x"), HasSubstr("unknown variable"));
  EXPECT_THAT(reason("~/${EDITOR}/x"), HasSubstr("invalid root"));
  EXPECT_THAT(reason("~/.cache/../.ssh"), HasSubstr("invalid root"));
  EXPECT_THAT(reason("relative"), HasSubstr("neither absolute nor"));
  EXPECT_THAT(reason("/etc"), HasSubstr("outside the home"));
  EXPECT_THAT(reason("~/"), HasSubstr("invalid root"));
}

TEST_F(Roots, MatchWildcardsAndRememberTheFirst) {
  fs::create_directories(home_ / "profiles/abc.default/cache2");
  fs::create_directories(home_ / "profiles/def.work/cache2");
  fs::create_directories(home_ / "profiles/empty.default");
  write(home_ / "profiles/file.default", "x");
  const std::vector<Root> roots = expand("~/profiles/*.default/cache*");
  ASSERT_THAT(roots, SizeIs(1));
  EXPECT_EQ(roots.front().path, home_ / "profiles/abc.default/cache2");
  EXPECT_EQ(roots.front().wildcard, "abc");
  EXPECT_THAT(paths("~/profiles/*/cache2"),
              ElementsAre(home_ / "profiles/abc.default/cache2", home_ / "profiles/def.work/cache2"));
}

TEST_F(Roots, AreBoundedForOneWildcard) {
  for (std::size_t i = 0; i < most_matches + 5; ++i)
    fs::create_directories(home_ / ("many/" + std::to_string(i)));
  const std::vector<Root> roots = expand("~/many/*");
  EXPECT_LE(roots.size(), most_matches + 1);
  EXPECT_THAT(roots.front().reason, HasSubstr("too many names: only the first"));
}

TEST_F(Roots, AreNotReachedThroughLinks) {
  const TemporaryDirectory elsewhere;
  fs::create_directories(elsewhere / "pip");
  fs::create_directory_symlink(elsewhere.path(), home_ / ".cache");
  EXPECT_THAT(reason("~/.cache/pip"), HasSubstr("symbolic link"));
  EXPECT_THAT(reason("~/.cache"), HasSubstr("symbolic link"));
  EXPECT_THAT(expand("~/*/pip"), IsEmpty());
}

TEST_F(Roots, AreNotBehindAMountInTheHome) {
  fs::create_directories(home_ / ".cache/pip");
  fs::create_directories(home_ / "bound");
  const PrivateMount bound(nullptr, "/etc", home_ / ".cache/pip", MS_BIND);
  HangingMount hanging(home_ / "bound");
  EXPECT_THAT(reason("~/.cache/pip"), HasSubstr("another mount"));
  EXPECT_THAT(reason("~/bound"), HasSubstr("another mount"));
  EXPECT_THAT(reason("~/bound/deeper"), HasSubstr("another mount"));
  EXPECT_EQ(hanging.requests(), 0);
}

TEST_F(Roots, OfTheSystemMayBeOnAnyLocalVolumeButNotMountPoints) {
  fs::create_directories(home_ / "var");
  const PrivateMount var = PrivateMount::tmpfs(home_ / "var", "1m");
  fs::create_directories(home_ / "var/cache/fonts");
  const Mounts mounts(readMountTable().value());
  const Base base{mounts, {}};
  const std::vector<Root> found = expandRoot(base, home_ / "var/c*/fonts");
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_TRUE(found.front().directory) << found.front().reason;
  EXPECT_EQ(found.front().path, home_ / "var/cache/fonts");
  ASSERT_THAT(expandRoot(base, home_ / "var"), SizeIs(1));
  EXPECT_EQ(expandRoot(base, home_ / "var").front().reason, "it is a mount point");
  EXPECT_THAT(expandRoot(base, "~/x").front().reason, HasSubstr("no home"));
}

TEST_F(Roots, ThatAreTheSameDirectoryCountOnceAndInnerOnesAreLeftOut) {
  fs::create_directories(home_ / ".cache/pip/http");
  std::vector<Root> roots = expand("~/.cache/pip/http");
  for (const char* const written : {"~/.cache/pip", "${XDG_CACHE_HOME}/pip", "~/.cache/*"}) {
    for (Root& root : expand(written)) roots.push_back(std::move(root));
  }
  leaveOutRepeated(roots);
  ASSERT_THAT(roots, SizeIs(2));
  EXPECT_THAT(roots[0].reason, HasSubstr("inside another"));
  EXPECT_FALSE(roots[0].directory);
  EXPECT_EQ(roots[1].path, home_ / ".cache/pip");
  EXPECT_TRUE(roots[1].directory);
}

TEST(Wildcard, StandsForAnyPartOfOneName) {
  EXPECT_EQ(wildcardMatch("*", "x"), "x");
  EXPECT_EQ(wildcardMatch("*", ".hidden"), ".hidden");
  EXPECT_EQ(wildcardMatch("a*z", "az"), "");
  EXPECT_EQ(wildcardMatch("*-*", "a-b-c"), "a");
  EXPECT_EQ(wildcardMatch("aa*aa", "aaa"), std::nullopt);
  EXPECT_EQ(wildcardMatch("a*", "b"), std::nullopt);
  EXPECT_EQ(wildcardMatch("[a]", "a"), std::nullopt);
}

}  // namespace
}  // namespace kelvane::caches::tests
