#include "tools/volume_of.h"

#include <gmock/gmock.h>
#include <filesystem>

#include "support/volumes.h"
#include "tests/foundation/temporary_directory.h"
#include "tools/problem.h"

namespace kelvane::tests {
namespace {

/// The mount table that a test says, for as long as it lives.
class Mounts final : public VolumeSource {
 public:
  explicit Mounts(std::vector<MountEntry> entries) : entries_(std::move(entries)) { install(this); }
  ~Mounts() override { install(nullptr); }
  Mounts(const Mounts&) = delete;
  Mounts& operator=(const Mounts&) = delete;

  std::vector<MountEntry> mounts() override { return entries_; }
  std::optional<VolumeSpace> space(const std::string& /*path*/) override { return std::nullopt; }
  std::optional<std::vector<std::string>> overQuota(uid_t /*user*/) override { return std::nullopt; }

 private:
  const std::vector<MountEntry> entries_;
};

/// The name of the problem that a path makes; empty for none.
std::string problemWith(const std::string& path) {
  try {
    return "volume " + tools::volumeOf(path);
  } catch (const tools::Problem& problem) {
    EXPECT_EQ(problem.code(), tools::exit_usage);
    return problem.what();
  }
}

struct VolumeOf : testing::Test {
  test::TemporaryDirectory folder;
  const std::string home = std::filesystem::canonical(folder.path());
};

TEST_F(VolumeOf, IsTheDeepestMountThatHoldsThePath) {
  std::filesystem::create_directories(home + "/data/in");
  std::filesystem::create_directories(home + "/database");
  const Mounts mounts(
      {{"/dev/a", "/", "/", "ext4", "8:1", true}, {"/dev/b", "/", home + "/data", "ext4", "8:2", true}});
  EXPECT_EQ(tools::volumeOf(home + "/data"), home + "/data");
  EXPECT_EQ(tools::volumeOf(home + "/data/in/"), home + "/data");
  EXPECT_EQ(tools::volumeOf(home + "/database"), "/");
  EXPECT_EQ(tools::volumeOf("/"), "/");
}

TEST_F(VolumeOf, IsWhereALinkLeads) {
  std::filesystem::create_directories(home + "/data");
  std::filesystem::create_symlink(home + "/data", home + "/link");
  const Mounts mounts(
      {{"/dev/a", "/", "/", "ext4", "8:1", true}, {"/dev/b", "/", home + "/data", "ext4", "8:2", true}});
  EXPECT_EQ(tools::volumeOf(home + "/link"), home + "/data");
}

TEST_F(VolumeOf, StandsForOtherMountsOfItsDevice) {
  std::filesystem::create_directories(home + "/bound");
  const Mounts mounts(
      {{"/dev/a", "/", "/", "ext4", "8:1", true}, {"/dev/a", "/srv", home + "/bound", "ext4", "8:1", true}});
  EXPECT_EQ(tools::volumeOf(home + "/bound"), "/");
}

TEST_F(VolumeOf, IsNoneForAPathOnSomethingElse) {
  std::filesystem::create_directories(home + "/share");
  const Mounts mounts(
      {{"/dev/a", "/", "/", "ext4", "8:1", true}, {"server:/", "/", home + "/share", "nfs", "0:50", true}});
  EXPECT_THAT(problemWith(home + "/share"), testing::HasSubstr("is not a volume that the daemon serves"));
}

TEST_F(VolumeOf, IsTheLastOfSeveralMountsAtOnePath) {
  std::filesystem::create_directories(home + "/share");
  const Mounts mounts({{"/dev/b", "/", home + "/share", "ext4", "8:2", true},
                       {"server:/", "/", home + "/share", "nfs", "0:50", true}});
  EXPECT_THAT(problemWith(home + "/share"), testing::HasSubstr("is not a volume that the daemon serves"));
}

TEST_F(VolumeOf, IsNoneForAPathThatIsNotThere) {
  const Mounts mounts({{"/dev/a", "/", "/", "ext4", "8:1", true}});
  EXPECT_THAT(problemWith(home + "/nothing"), testing::HasSubstr("No such file or directory"));
  EXPECT_THAT(problemWith(""), testing::HasSubstr("No such file or directory"));
}

}  // namespace
}  // namespace kelvane::tests
