// Real file systems in image files: the figures must match the free space of the volume. Needs root for loop
// devices.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "kelvane/folder_purge.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/cache_tree.h"
#include "tests/support/block_volume.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::CachePurge;
using client::CacheRules;
using client::CacheStay;
using testing::ElementsAre;
using testing::IsEmpty;

const bool private_mounts = enterPrivateMounts();
const bool a_year_ahead = advanceAYear();

constexpr std::size_t mebibyte = 1 << 20;

/// A volume of its own, in a directory of its own.
class OwnVolume {
 public:
  OwnVolume(const std::string& type, std::size_t bytes)
      : volume_(type, bytes, directory_ / "image", made(directory_ / "volume")) {}
  [[nodiscard]] const std::string& path() const { return volume_.path(); }
  [[nodiscard]] std::uint64_t settledFreeBytes() const { return volume_.settledFreeBytes(); }

 private:
  static std::string made(const std::string& directory) {
    fs::create_directory(directory);
    return directory;
  }

  const test::TemporaryDirectory directory_;
  const BlockVolume volume_;
};

void expectWithinOnePercent(std::uint64_t claimed, std::uint64_t measured) {
  EXPECT_NEAR(static_cast<double>(claimed), static_cast<double>(measured),
              static_cast<double>(measured) / 100);
}

class OnABlockDevice : public testing::TestWithParam<const char*> {
 protected:
  /// Files of many sizes, with several names inside and outside, and with holes.
  static void fill(const CacheTree& cache, const std::string& in) {
    for (int file = 0; file < 120; ++file) {
      const std::string name = in + "/" + std::to_string(file % 7) + "/" + std::to_string(file);
      cache.add(name, std::time_t{file + 1} * 2 * day, static_cast<std::size_t>(file % 5 + 1) * 300'000);
    }
    for (const int file : {10, 20, 30}) {
      const std::string name = in + "/" + std::to_string(file % 7) + "/" + std::to_string(file);
      fs::create_hard_link(cache.path(name), cache.path(in + "/linked" + std::to_string(file)));
    }
    cache.add(in + "/sparse", 100 * day);
    fs::resize_file(cache.path(in + "/sparse"), std::uintmax_t{1} << 30);
    cache.setAge(in + "/sparse", 100 * day);
  }
};
INSTANTIATE_TEST_SUITE_P(, OnABlockDevice, testing::Values("ext4", "xfs", "btrfs"),
                         [](const auto& type) { return type.param; });

TEST_P(OnABlockDevice, FreesWhatItClaimsAndDeletesWhatItNames) {
  const OwnVolume volume(GetParam(), 320 * mebibyte);
  const CacheTree cache(volume.path());
  fill(cache, "files");
  const auto rules = rulesOfDays({200, 100, 50, 0});
  for (int urgency = 1; urgency <= 4; ++urgency) {
    const std::uint64_t before = volume.settledFreeBytes();
    const auto claimed = cache.survey(rules).at_urgency[static_cast<std::size_t>(urgency) - 1];
    const auto all = cache.files();
    const auto named = cache.list(rules, urgency);
    const CachePurge purged = cache.purge(rules, urgency);
    const auto left = cache.files();
    std::vector<std::string> gone;
    std::set_difference(all.begin(), all.end(), left.begin(), left.end(), std::back_inserter(gone));
    EXPECT_EQ(named, gone);
    EXPECT_GT(purged.freed, mebibyte);
    EXPECT_EQ(purged.freed, claimed.bytes);
    EXPECT_EQ(purged.items, claimed.items);
    expectWithinOnePercent(purged.freed, volume.settledFreeBytes() - before);
  }
  EXPECT_THAT(cache.files(), IsEmpty());
}

TEST_P(OnABlockDevice, FreesWhatItClaimsOfUnits) {
  const OwnVolume volume(GetParam(), 512 * mebibyte);
  const CacheTree cache(volume.path());
  for (const char* unit : {"units/a", "units/b"}) fill(cache, unit);
  CacheRules rules = rulesOfDays({-1, -1, -1, 0});
  rules.unit = client::CacheUnit::directory;
  rules.include = {"units/*"};
  const std::uint64_t before = volume.settledFreeBytes();
  const auto claimed = cache.survey(rules).at_urgency[3];
  const CachePurge purged = cache.purge(rules);
  EXPECT_EQ(purged.items, 2U);
  EXPECT_EQ(purged.freed, claimed.bytes);
  expectWithinOnePercent(purged.freed, volume.settledFreeBytes() - before);
  EXPECT_TRUE(fs::is_empty(cache.path("units")));
}

TEST_P(OnABlockDevice, GivesSpaceBackWhenNotAByteIsFree) {
  const std::size_t size = std::string(GetParam()) == "xfs" ? 320 : 128;  // the least that it can be
  const OwnVolume volume(GetParam(), size * mebibyte);
  const CacheTree cache(volume.path());
  cache.add("files/a", 100 * day, mebibyte);
  cache.add("units/one/a", 100 * day, mebibyte);
  const FileDescriptor ballast(
      ::open((volume.path() + "/ballast").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::string some(mebibyte, 'x');
  for (std::size_t bytes = some.size(); bytes > 0; bytes /= 2)
    while (::write(ballast.get(), some.data(), bytes) > 0) continue;
  ::fsync(ballast.get());
  auto rules = rulesOfDays({-1, -1, -1, 0});
  rules.include = {"files/**"};
  EXPECT_EQ(cache.purge(rules).freed, mebibyte);
  rules.unit = client::CacheUnit::directory;
  rules.include = {"units/*"};
  const std::uint64_t bytes = mebibyte + bytesOfDirectories(cache.path("units/one"));
  const CachePurge purged = cache.purge(rules);
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.failures, 0U);
  EXPECT_THAT(cache.files(), IsEmpty());
}

TEST_P(OnABlockDevice, GivesUpMoreDirectoriesThanNamesAreKept) {
  const OwnVolume volume(GetParam(), 320 * mebibyte);
  const std::string root = volume.path() + "/many";
  fs::create_directory(root);
  constexpr int directories = 10'000;  // their names take twice the memory limit
  for (int number = 0; number < directories; ++number)
    ASSERT_EQ(::mkdir((root + "/" + std::to_string(number) + std::string(200, 'n')).c_str(), 0700), 0);
  const auto purged = client::purgeFolder(root, {.empty_folders = true},
                                          client::Cancellation(std::make_shared<std::atomic<bool>>(false)));
  EXPECT_EQ(purged.folders, static_cast<std::uint64_t>(directories));
  EXPECT_TRUE(fs::is_empty(root));
}

/// A second file with the same blocks.
void reflink(const std::string& from, const std::string& to) {
  const FileDescriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const FileDescriptor copy(::open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(::ioctl(copy.get(), FICLONE, source.get()), 0);
}

class WhereFilesShareBlocks : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(, WhereFilesShareBlocks, testing::Values("xfs", "btrfs"),
                         [](const auto& type) { return type.param; });

TEST_P(WhereFilesShareBlocks, IsClaimedWhatIsFreed) {
  const OwnVolume volume(GetParam(), 320 * mebibyte);
  const CacheTree cache(volume.path());
  for (const char* name : {"own", "shared", "both"}) cache.add(name, 100 * day, 8 * mebibyte);
  reflink(cache.path("shared"), cache.outside("elsewhere"));
  reflink(cache.path("both"), cache.path("both too"));
  const auto rules = rulesOfDays({-1, -1, -1, 0});
  const std::uint64_t before = volume.settledFreeBytes();
  EXPECT_EQ(cache.survey(rules).at_urgency[3].bytes, 8 * mebibyte) << "what is certain";
  const CachePurge purged = cache.purge(rules);
  EXPECT_EQ(purged.files, 4U);
  expectWithinOnePercent(purged.freed, volume.settledFreeBytes() - before);
  EXPECT_GT(purged.freed, 15 * mebibyte);
  EXPECT_LT(purged.freed, 17 * mebibyte);
}

TEST(OnExt4, GivesSpaceBackWhenNotAnInodeIsFree) {
  const OwnVolume volume("ext4 -N 64", 64 * mebibyte);
  const CacheTree cache(volume.path());
  cache.add("units/one/a", 100 * day, mebibyte);
  int made = 0;
  while (FileDescriptor(
      ::open((volume.path() + "/" + std::to_string(made)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)))
    ++made;
  EXPECT_EQ(errno, ENOSPC);
  CacheRules rules = rulesOfDays({-1, -1, -1, 0});
  rules.unit = client::CacheUnit::directory;
  rules.include = {"units/*"};
  const std::uint64_t bytes = mebibyte + bytesOfDirectories(cache.path("units/one"));
  const CachePurge purged = cache.purge(rules);
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.failures, 0U);
}

TEST(OnExt4, LeavesImmutableFilesAndAppendOnlyDirectories) {
  const OwnVolume volume("ext4", 64 * mebibyte);
  const CacheTree cache(volume.path());
  for (const char* name : {"free", "immutable", "append/file", "units/one/a"}) cache.add(name);
  const auto set = [&](const char* name, int flags) {
    const FileDescriptor file(::open(cache.path(name).c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(::ioctl(file.get(), FS_IOC_SETFLAGS, &flags), 0) << name;
  };
  set("immutable", FS_IMMUTABLE_FL);
  set("append", FS_APPEND_FL);
  set("units/one/a", FS_IMMUTABLE_FL);
  CacheRules rules = rulesOfDays({-1, -1, -1, 0});
  EXPECT_EQ(stays(cache.survey(rules), CacheStay::unreadable).items, 3U);
  EXPECT_THAT(cache.list(rules), ElementsAre("free"));
  EXPECT_EQ(cache.purge(rules).files, 1U);
  rules.unit = client::CacheUnit::directory;
  rules.include = {"units/*"};
  EXPECT_EQ(cache.purge(rules).items, 0U);
  EXPECT_TRUE(cache.exists("units/one/a"));
  for (const char* name : {"immutable", "append", "units/one/a"}) set(name, 0);
}

}  // namespace
}  // namespace kelvane::tests
