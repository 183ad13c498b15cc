// Directories of grants that another user can change. Some belong to another user, so this needs root.

#include "support/grant_directory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "common/keys.h"
#include "support/entitlements.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr uid_t somebody = 65534;
constexpr uid_t user = 1234;

/// A directory that grants `user` CLIENT_ENTITLEMENT as long as it is trusted.
class GrantDirectories : public testing::Test {
 protected:
  void SetUp() override { make("etc/entitlements.d"); }
  void TearDown() override { loadEntitlementGrants({}); }

  void make(const std::string& name) const {
    directory_.write(name + "/grant.plist",
                     "<plist version=\"1.0\"><dict><key>user</key><integer>1234</integer><key>" +
                         std::string(entitlements_key) + "</key><array><string>" + CLIENT_ENTITLEMENT +
                         "</string></array></dict></plist>");
    for (fs::path at = name; !at.empty(); at = at.parent_path())
      ASSERT_EQ(::chmod((directory_ / at.string()).c_str(), 0755), 0);
    ASSERT_EQ(::chmod((directory_ / (name + "/grant.plist")).c_str(), 0644), 0);
  }
  [[nodiscard]] bool grants() const {
    loadEntitlementGrants({path_});
    return holds(user);
  }
  [[nodiscard]] static bool holds(uid_t who) {
    return peerIsEntitled({1, who, 5000, {}, std::nullopt}, {CLIENT_ENTITLEMENT});
  }
  /// Whether its files are ignored, nobody holds anything by default, and the log names it with that reason.
  [[nodiscard]] bool isIgnored(const std::string& reason) const {
    const bool granted = grants();
    return !granted && !holds(0) && log_.lines().size() == 1 &&
           log_.contains(3, "loadEntitlementGrants ignoring " + path_ + ": " + reason);
  }

  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "etc/entitlements.d";
  const std::string parent_ = directory_ / "etc";
  const LogCapture log_{3};
};

TEST_F(GrantDirectories, OneThatOnlyRootCanWriteCounts) {
  EXPECT_TRUE(grants());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(GrantDirectories, OneOfAnotherUserIsIgnored) {
  ASSERT_EQ(::chown(path_.c_str(), somebody, 0), 0);
  EXPECT_TRUE(isIgnored("it is owned by another user"));
}

TEST_F(GrantDirectories, OneThatItsGroupCanWriteIsIgnored) {
  ASSERT_EQ(::chmod(path_.c_str(), 0775), 0);
  EXPECT_TRUE(isIgnored("others can write it"));
}

TEST_F(GrantDirectories, OneThatOthersCanWriteIsIgnoredAlsoWithTheStickyBit) {
  ASSERT_EQ(::chmod(path_.c_str(), 01757), 0);
  EXPECT_TRUE(isIgnored("others can write it"));
}

TEST_F(GrantDirectories, OneInADirectoryOfAnotherUserIsIgnored) {
  ASSERT_EQ(::chown(parent_.c_str(), somebody, 0), 0);
  EXPECT_TRUE(isIgnored("the directory that holds it is owned by another user"));
}

TEST_F(GrantDirectories, OneInADirectoryThatOthersCanWriteIsIgnored) {
  ASSERT_EQ(::chmod(parent_.c_str(), 01777), 0);
  EXPECT_TRUE(isIgnored("others can write the directory that holds it"));
}

TEST_F(GrantDirectories, ASymbolicLinkIsIgnored) {
  fs::rename(path_, directory_ / "etc/real.d");
  fs::create_directory_symlink("real.d", path_);
  EXPECT_TRUE(isIgnored("it is a symbolic link"));
}

TEST_F(GrantDirectories, ALinkFurtherUpLeadsToTheParentThatIsChecked) {
  fs::create_directory_symlink(parent_, directory_ / "link");
  loadEntitlementGrants({directory_ / "link/entitlements.d"});
  EXPECT_TRUE(holds(user));
  ASSERT_EQ(::chmod(parent_.c_str(), 0777), 0);
  loadEntitlementGrants({directory_ / "link/entitlements.d"});
  EXPECT_FALSE(holds(user));
}

TEST_F(GrantDirectories, AFileInItsPlaceIsIgnored) {
  fs::remove_all(path_);
  directory_.write("etc/entitlements.d", "");
  EXPECT_TRUE(isIgnored("Not a directory"));
}

TEST_F(GrantDirectories, AMissingOneIsNoneWithoutAWord) {
  fs::remove_all(parent_);
  EXPECT_FALSE(grants());
  EXPECT_TRUE(holds(0)) << "root holds every name where nothing is granted";
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(GrantDirectories, AnIgnoredOneLeavesTheOthersCounting) {
  make("usr/entitlements.d");
  ASSERT_EQ(::chmod(path_.c_str(), 0777), 0);
  loadEntitlementGrants({directory_ / "usr/entitlements.d", path_});
  EXPECT_TRUE(holds(user));
  EXPECT_FALSE(holds(0));
}

TEST_F(GrantDirectories, FilesAreThoseOfTheDirectoryThatWasChecked) {
  directory_.write("etc/entitlements.d/b.plist", "checked");
  directory_.write("etc/entitlements.d/a.plist", "");
  directory_.write("etc/entitlements.d/other.txt", "");
  const GrantDirectory opened = openGrantDirectory(path_);
  EXPECT_EQ(opened.problem, "");
  EXPECT_EQ(opened.files, (Names{"a.plist", "b.plist", "grant.plist"}));
  fs::rename(path_, directory_ / "etc/away");
  directory_.write("etc/entitlements.d/b.plist", "another");
  const FileDescriptor file(::openat(opened.directory.get(), "b.plist", O_RDONLY | O_CLOEXEC));
  std::array<char, 16> text{};
  EXPECT_EQ(::read(file.get(), text.data(), text.size()), 7);
  EXPECT_STREQ(text.data(), "checked");
}

TEST_F(GrantDirectories, ALinkToAFileThatOthersCanWriteIsIgnored) {
  directory_.write("elsewhere/grant.plist", "");
  ASSERT_EQ(::chmod((directory_ / "elsewhere/grant.plist").c_str(), 0666), 0);
  fs::remove(path_ + "/grant.plist");
  fs::create_symlink(directory_ / "elsewhere/grant.plist", path_ + "/grant.plist");
  EXPECT_FALSE(grants());
  EXPECT_TRUE(log_.contains(3, "ignoring " + path_ + "/grant.plist: others can write it"));
}

}  // namespace
}  // namespace kelvane::tests
