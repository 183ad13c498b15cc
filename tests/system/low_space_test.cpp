// Volumes that run low while nobody asks for anything: a real daemon over real volumes, real writers, and a
// service that deletes real files.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <filesystem>
#include <fstream>

#include "common/keys.h"
#include "tests/system/services.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t mebibyte = 1 << 20;
const std::vector<std::string> low_below_a_tenth = {"KELVANE_LOW_SPACE=10%"};

class LowSpace : public testing::Test {
 protected:
  Daemon& daemon(const std::vector<std::string>& environment = low_below_a_tenth) {
    daemon_ = std::make_unique<Daemon>(built("kelvaned"), environment);
    EXPECT_TRUE(daemon_->isReady()) << daemon_->process().output();
    return *daemon_;
  }
  static Finished post(const Daemon& daemon, const std::vector<std::string>& event) {
    std::vector<std::string> command = {"busctl",
                                        "--address=unix:path=" + daemon.launchSocket(),
                                        "call",
                                        "com.orvel.Kelvane",
                                        "/com/orvel/launch",
                                        "com.orvel.Launch",
                                        "PostEvent",
                                        "sa{sv}",
                                        "com.orvel.dispatch.vfs"};
    command.insert(command.end(), event.begin(), event.end());
    return run(command);
  }

  std::unique_ptr<Daemon> daemon_;
};

/// A volume of no more than so many files, at a path of the test's choice.
class MountedAt {
 public:
  MountedAt(std::string path, const std::string& options) : path_(std::move(path)) {
    fs::create_directories(path_);
    EXPECT_EQ(::mount("kelvane-test-volume", path_.c_str(), "tmpfs", 0, options.c_str()), 0) << path_;
  }
  ~MountedAt() {
    ::umount2(path_.c_str(), MNT_DETACH);
    fs::remove(path_);
  }
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] struct statvfs space() const {
    struct statvfs found {};
    EXPECT_EQ(::statvfs(path_.c_str(), &found), 0);
    return found;
  }

 private:
  const std::string path_;
};

/// Writes zeros to a new file until so many bytes are there or the volume is full.
void write(const std::string& path, std::uint64_t bytes) {
  std::ofstream file(path, std::ios::binary);
  const std::string block(4096, '\0');
  for (std::uint64_t written = 0; written < bytes && file; written += block.size())
    file << block << std::flush;
}

TEST_F(LowSpace, AVolumeThatIsFilledIsGivenSpaceThoughNobodyAsked) {
  const Volume volume(64);
  Daemon& daemon = this->daemon();
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 32, mebibyte));
  write(volume.path() + "/growing", 27 * mebibyte);
  EXPECT_TRUE(service->printed("asked 1 262144000"));
  EXPECT_TRUE(daemon.logged("handleVFSStreamXPCEvent: caught VQ_LOWDISK"));
}

TEST_F(LowSpace, AWriterWhoHasTakenTheLastSpaceFindsMoreOnceServicesHaveGivenTheirs) {
  const Volume volume(64);
  Daemon& daemon = this->daemon();
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 40, mebibyte));
  write(volume.path() + "/growing", 20 * mebibyte);
  EXPECT_TRUE(daemon.logged("com.example.cache service purged: 41943040")) << daemon.process().output();
  write(volume.path() + "/more", 30 * mebibyte);
  EXPECT_EQ(fs::file_size(volume.path() + "/more"), 30 * mebibyte);
}

TEST_F(LowSpace, AVolumeThatIsMountedAndFilledWhileTheDaemonRunsIsSeen) {
  Daemon& daemon = this->daemon();
  const Volume volume(64);
  const std::string folder = volume.fill("cache", 60, mebibyte);
  const auto service = startService(daemon, "deletes", "com.example.cache", folder);
  EXPECT_TRUE(service->printed("asked 1"));
}

TEST_F(LowSpace, AVolumeWithoutByteOrInodeIsStillPurgedAndTheDaemonWhoseStateIsThereAnswers) {
  const Folder folder;
  const MountedAt volume(folder.path() + "/volume", "size=32m,nr_inodes=100");
  Daemon& daemon = this->daemon({"STATE_DIRECTORY=" + volume.path() + "/state", "KELVANE_LOW_SPACE=0%"});
  fs::create_directory(volume.path() + "/cache");
  for (int i = 0; i < 8; ++i) write(volume.path() + "/cache/" + std::to_string(i), 2 * mebibyte);
  write(volume.path() + "/rest", 32 * mebibyte);
  for (int i = 0; i < 100; ++i) std::ofstream(volume.path() + "/inode" + std::to_string(i));
  ASSERT_EQ(volume.space().f_bavail, 0U);
  ASSERT_EQ(volume.space().f_favail, 0U);

  const auto service = startService(daemon, "deletes", "com.example.cache", volume.path() + "/cache");
  Client client(daemon);
  const auto purgeable = client.purgeableSpace({{KELVANE_VOLUME, volume.path()}});
  ASSERT_TRUE(purgeable) << client.failure();
  const auto result = client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 4 * mebibyte}});
  ASSERT_TRUE(result) << client.failure();
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 4 * mebibyte);
  EXPECT_EQ((*result)[KELVANE_FREESPACE_BEGIN].unsignedLongLongValue(), 0U);
  EXPECT_GE(volume.space().f_bavail * volume.space().f_frsize, 3 * mebibyte);
}

TEST_F(LowSpace, ADaemonThatStartsWithItsStateOnAFullVolumeServesAndMakesSpaceThere) {
  const Folder folder;
  const MountedAt volume(folder.path() + "/volume", "size=32m,nr_inodes=100");
  fs::create_directories(volume.path() + "/state");
  fs::create_directory(volume.path() + "/cache");
  for (int i = 0; i < 8; ++i) write(volume.path() + "/cache/" + std::to_string(i), 2 * mebibyte);
  write(volume.path() + "/rest", 32 * mebibyte);
  ASSERT_EQ(volume.space().f_bavail, 0U);
  Daemon& daemon = this->daemon({"STATE_DIRECTORY=" + volume.path() + "/state", "KELVANE_LOW_SPACE=10%"});
  const auto service = startService(daemon, "deletes", "com.example.cache", volume.path() + "/cache");
  EXPECT_TRUE(service->printed("asked 1 262144000"));
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST_F(LowSpace, AMountPointWithSpacesAndALineBreakIsAVolumeByItsName) {
  const Folder folder;
  const MountedAt volume(folder.path() + "/a b\n\tc\\040", "size=16m");
  Daemon& daemon = this->daemon();
  fs::create_directory(volume.path() + "/cache");
  for (int i = 0; i < 14; ++i) write(volume.path() + "/cache/" + std::to_string(i), mebibyte);
  const auto service = startService(daemon, "deletes", "com.example.cache", volume.path() + "/cache");
  const auto result = Client(daemon).purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, mebibyte}});
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), mebibyte);
  write(volume.path() + "/growing", 3 * mebibyte);
  EXPECT_TRUE(service->printed("asked 1 262144000"));
}

TEST_F(LowSpace, AMountPointThatNoMessageCouldNameIsNoVolumeAndHarmsNobody) {
  const Folder folder;
  const MountedAt unspeakable(folder.path() + "/\xff\xfe", "size=1m");
  write(unspeakable.path() + "/all", mebibyte);
  Daemon& daemon = this->daemon();
  const Volume volume(64);
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 60, mebibyte));
  EXPECT_TRUE(service->printed("asked 1 262144000"));
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST_F(LowSpace, OneOfTwoThousandVolumesIsSeen) {
  const Folder folder;
  const MountedAt all(folder.path() + "/all", "size=16m");
  std::vector<std::unique_ptr<MountedAt>> volumes;
  volumes.reserve(2000);
  for (int i = 0; i < 2000; ++i) {
    volumes.push_back(std::make_unique<MountedAt>(all.path() + "/" + std::to_string(i), "size=4m"));
  }
  Daemon& daemon = this->daemon();
  const std::string& path = volumes[1234]->path();
  fs::create_directory(path + "/cache");
  for (int i = 0; i < 20; ++i) write(path + "/cache/" + std::to_string(i), mebibyte / 8);
  const auto service = startService(daemon, "deletes", "com.example.cache", path + "/cache");
  write(path + "/growing", 5 * mebibyte / 4);
  EXPECT_TRUE(service->printed("asked 1 262144000"));
  EXPECT_TRUE(Client(daemon).isServed());
  daemon_.reset();
  while (!volumes.empty()) volumes.pop_back();
}

TEST_F(LowSpace, AnEventWithoutFlagsWithUnknownBitsOrWithATextForThemFindsNoneAndHarmsNobody) {
  const Volume volume(64);
  Daemon& daemon = this->daemon({});
  const auto service = startService(daemon, "silent", "com.example.cache", volume.fill("cache", 1, mebibyte));
  for (const std::vector<std::string>& event : {std::vector<std::string>{"0"},
                                                {"1", "_Flags", "t", "9223372036854775811"},
                                                {"1", "_Flags", "s", "0x4"},
                                                {"2", "_Flags", "ay", "1", "4", "other", "s", "thing"}}) {
    const Finished posted = post(daemon, event);
    EXPECT_EQ(posted.status, 0) << posted.output;
  }
  EXPECT_TRUE(daemon.process().printed("No volumes report low disk space, skipping purge", 4));
  EXPECT_EQ(daemon.process().count("caught"), 0U);
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST_F(LowSpace, ADaemonWhoseThresholdsDoNotParseRefusesToStart) {
  const Finished finished =
      run({built("kelvaned")}, {"KELVANE_LOW_SPACE=lots", "RUNTIME_DIRECTORY=/nowhere/run"});
  EXPECT_EQ(finished.status, 1);
  EXPECT_NE(
      finished.output.find("kelvaned: KELVANE_LOW_SPACE is \"lots\", and of \"lots\" it is not a number"),
      std::string::npos)
      << finished.output;
}

}  // namespace
}  // namespace kelvane::tests
