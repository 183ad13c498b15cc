// Volumes on block devices: ext4 and xfs in image files, parts of them mounted elsewhere, mounted and
// unmounted while the daemon runs; and one behind a program that never answers. Needs to be root, for the
// loop devices.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <filesystem>
#include <optional>

#include "common/keys.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/support/hanging_volume.h"
#include "tests/system/services.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t mebibyte = 1 << 20;

void succeed(const std::vector<std::string>& command) {
  const Finished finished = run(command);
  EXPECT_EQ(finished.status, 0) << command.front() << ": " << finished.output;
}

/// A file that takes next to no space until something is written to it.
std::string imageFile(const Folder& folder, off_t bytes) {
  std::string path = folder.path() + "/image";
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(::ftruncate(file.get(), bytes), 0);
  return path;
}

/// A file system of that type in an image file, and where it can be mounted.
class BlockVolume {
 public:
  explicit BlockVolume(const std::string& type) : image_(imageFile(folder_, 320 << 20)) {
    const std::vector<std::string> make =
        type == "xfs" ? std::vector<std::string>{"mkfs.xfs", "-q", image_}
                      : std::vector<std::string>{"mkfs.ext4", "-q", "-m", "0", image_};
    succeed(make);
    fs::create_directory(path());
    mount();
  }
  ~BlockVolume() { ::umount2(path().c_str(), MNT_DETACH); }
  void mount() const { succeed({"mount", "-o", "loop", image_, path()}); }
  void unmount() const { succeed({"umount", path()}); }
  [[nodiscard]] std::string path() const { return folder_.path() + "/volume"; }
  [[nodiscard]] std::uint64_t freeSpace() const {
    struct statvfs space {};
    EXPECT_EQ(::statvfs(path().c_str(), &space), 0);
    return space.f_bavail * space.f_frsize;
  }
  /// Files of a mebibyte in a folder of that name.
  [[nodiscard]] std::string fill(const std::string& name, std::uint64_t count) const {
    std::string folder = path() + "/" + name;
    fs::create_directory(folder);
    for (std::uint64_t i = 0; i < count; ++i) take(folder + "/" + std::to_string(i), mebibyte);
    return folder;
  }
  static void take(const std::string& path, std::uint64_t bytes) {
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes)), 0) << path;
  }

 private:
  const Folder folder_;
  const std::string image_;
};

std::optional<Dictionary> purge(const Daemon& daemon, const std::string& volume, std::uint64_t bytes) {
  return Client(daemon).purge({{KELVANE_VOLUME, volume}, {KELVANE_AMOUNT, bytes}});
}

class OnABlockDevice : public testing::TestWithParam<const char*> {};

TEST_P(OnABlockDevice, AVolumeIsPurgedOnRequestAndWhenItRunsLow) {
  const BlockVolume volume(GetParam());
  Daemon daemon(built("kelvaned"), {"KELVANE_LOW_SPACE=10%"});
  const auto service = startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 64));
  const auto result = purge(daemon, volume.path(), 8 * mebibyte);
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 8 * mebibyte);
  // Well below the limit: what was deleted may come free only now, and be there in addition.
  BlockVolume::take(volume.path() + "/growing", volume.freeSpace() - 12 * mebibyte);
  EXPECT_TRUE(service->printed("asked 1 262144000")) << daemon.process().output();
}

TEST_P(OnABlockDevice, AFolderOfAVolumeMountedElsewhereIsNoVolume) {
  const BlockVolume volume(GetParam());
  const std::string cache = volume.fill("cache", 4);
  const Folder elsewhere;
  ASSERT_EQ(::mount(cache.c_str(), elsewhere.path().c_str(), nullptr, MS_BIND, nullptr), 0);
  Daemon daemon;
  const auto service = startService(daemon, "deletes", "com.example.cache", cache);
  EXPECT_FALSE(purge(daemon, elsewhere.path(), mebibyte));
  EXPECT_TRUE(purge(daemon, volume.path(), mebibyte));
  ::umount2(elsewhere.path().c_str(), MNT_DETACH);
}

TEST_P(OnABlockDevice, AVolumeThatIsUnmountedWhileTheDaemonRunsIsNoneAndOneAgainWhenItIsMounted) {
  const BlockVolume volume(GetParam());
  const std::string cache = volume.fill("cache", 4);
  Daemon daemon;
  const auto service = startService(daemon, "deletes", "com.example.cache", cache);
  EXPECT_TRUE(purge(daemon, volume.path(), mebibyte));
  volume.unmount();  // nothing of the daemon keeps it busy
  EXPECT_FALSE(purge(daemon, volume.path(), mebibyte));
  volume.mount();
  EXPECT_TRUE(purge(daemon, volume.path(), mebibyte));
}

INSTANTIATE_TEST_SUITE_P(BlockVolumes, OnABlockDevice, testing::Values("ext4", "xfs"));

class HungVolume {
 public:
  explicit HungVolume(const std::string& type) {
    fs::create_directory(path());
    volume_.emplace(type, folder_.path() + "/image", path());
  }
  [[nodiscard]] std::string path() const { return folder_.path() + "/hung"; }

 private:
  const Folder folder_;
  std::optional<HangingVolume> volume_;
};

class HungVolumes : public testing::TestWithParam<const char*> {};

TEST_P(HungVolumes, OneThatDoesNotAnswerKeepsNobodyElseFromBeingServed) {
  const HungVolume hung(GetParam());
  const Volume volume(64);
  Daemon daemon(built("kelvaned"), {"KELVANE_LOW_SPACE=10%"});
  ASSERT_TRUE(daemon.isReady());
  EXPECT_TRUE(daemon.logged("volumeFreespace " + hung.path() + " does not answer, going on without it"));
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 50, mebibyte));
  ASSERT_TRUE(purge(daemon, volume.path(), mebibyte));
  const auto result = purge(daemon, hung.path(), mebibyte);  // is a volume, of whose space nothing is known
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_FREESPACE_BEGIN].unsignedLongLongValue(), 0U);
  BlockVolume::take(volume.path() + "/growing", volume.freeSpace() - 4 * mebibyte);
  EXPECT_TRUE(service->printed("asked 1 262144000")) << daemon.process().output();
  EXPECT_EQ(daemon.process().count("does not answer"), 1U);
}

TEST_P(HungVolumes, AVolumeThatIsUnmountedInTheMiddleIsForgotten) {
  auto hung = std::make_unique<HungVolume>(GetParam());
  const std::string path = hung->path();
  Daemon daemon(built("kelvaned"), {"KELVANE_LOW_SPACE=10%"});
  EXPECT_TRUE(daemon.logged("volumeFreespace " + path + " does not answer, going on without it"));
  hung.reset();
  EXPECT_TRUE(daemon.logged("volumeFreespace " + path + " answers again"));
  EXPECT_FALSE(purge(daemon, path, mebibyte));
}

INSTANTIATE_TEST_SUITE_P(OfAProgram, HungVolumes, testing::Values("fuseblk", "fuseblk.ntfs-3g"),
                         [](const auto& type) { return std::string(type.index == 0 ? "Plain" : "Named"); });

}  // namespace
}  // namespace kelvane::tests
