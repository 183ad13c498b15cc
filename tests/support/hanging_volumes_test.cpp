// Volumes that do not answer, beside others: real mounts, in a mount namespace of this program's own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/keys.h"
#include "platform/host/time.h"
#include "support/recent_info.h"
#include "support/volumes.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/hanging_volume.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

using testing::Contains;
using testing::Not;
using testing::Optional;

namespace fs = std::filesystem;

const bool private_mounts = enterPrivateMounts();

/// A full tmpfs, and beside it a volume that hangs.
class HangingVolumes : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
    for (const char* name : {"full", "hung", "view", "other"}) fs::create_directory(directory_ / name);
    tmpfs_ = std::make_unique<PrivateMount>("tmpfs", "none", full_, 0, "size=1m");
    std::ofstream(full_ + "/ballast") << std::string(1 << 20, 'x');
  }
  void TearDown() override {
    for (const auto& hanging : hanging_) hanging->end();
    // The threads that asked are still about to log that.
    while (log_.count("answers again") < log_.count("does not answer")) std::this_thread::yield();
  }

  void hang(const std::string& path, const std::string& type = "fuseblk.ntfs-3g") {
    const std::string image = directory_ / ("image" + std::to_string(hanging_.size()));
    hanging_.push_back(std::make_unique<HangingVolume>(type, image, path));
  }
  /// The result; nothing, and a failure, when it has not come after a time that only a hanging volume can
  /// take.
  template <class Function>
  auto soon(Function function) -> std::optional<decltype(function())> {
    auto result = std::async(std::launch::async, function);
    if (result.wait_for(std::chrono::seconds(20)) == std::future_status::ready) return result.get();
    ADD_FAILURE() << "it waits for the volume that hangs";
    for (const auto& hanging : hanging_) hanging->end();
    static_cast<void>(result.get());
    return std::nullopt;
  }

  const test::TemporaryDirectory directory_;
  const std::string full_ = directory_ / "full";
  const std::string hung_ = directory_ / "hung";
  const LogCapture log_{3};
  std::unique_ptr<PrivateMount> tmpfs_;
  std::vector<std::unique_ptr<HangingVolume>> hanging_;
};

TEST_F(HangingVolumes, AreLocalVolumesWithoutAnAnswer) {
  for (const char* const type : {"fuseblk", "fuseblk.ntfs-3g"}) {
    SCOPED_TRACE(type);
    hang(hung_, type);
    EXPECT_THAT(soon(getLocalVolumes), Optional(Contains(hung_)));
    EXPECT_EQ(soon([&] { return validateVolume({{KELVANE_VOLUME, hung_}}); }), true);
    EXPECT_EQ(soon([&] { return volumeFreespace(hung_); }), 0U);
    EXPECT_FALSE(soon([&] { return lookAtVolume(hung_); }).value());
    hanging_.back()->end();
  }
  EXPECT_EQ(log_.count(3, "volumeFreespace " + hung_ + " does not answer, going on without it"), 2U);
}

TEST_F(HangingVolumes, NeitherALookAtAnotherNorAQuestionWhichAreLowWaitsForThem) {
  hang(hung_);
  EXPECT_THAT(soon([] { return *lowSpaceVolumes(); }), Optional(Contains(full_)));
  EXPECT_THAT(soon([] { return *lowSpaceVolumes(); }), Optional(Not(Contains(hung_))));
  EXPECT_EQ(soon([&] { return lookAtVolume(full_)->space.bytes_free; }), 0U);
  EXPECT_EQ(soon([&] { return validateVolume({{KELVANE_VOLUME, full_}}); }), true);
}

TEST_F(HangingVolumes, SeveralAreWaitedForAtTheSameTimeAndOnlyOnce) {
  std::vector<std::string> paths;
  for (int i = 0; i < 8; ++i) {
    paths.push_back(directory_ / ("hung" + std::to_string(i)));
    fs::create_directory(paths.back());
    hang(paths.back());
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(soon([] { return *lowSpaceVolumes(); }), Optional(Contains(full_)));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << "half a second each";
  for (const std::string& path : paths)
    EXPECT_EQ(log_.count(3, "volumeFreespace " + path + " does not answer, going on without it"), 1U);
  const auto again = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    EXPECT_THAT(soon([] { return *lowSpaceVolumes(); }), Optional(Contains(full_)));
  EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::seconds(20)) << "half a second each time";
}

TEST_F(HangingVolumes, ASecondViewOfOneIsWaitedForAsLittle) {
  hang(hung_);
  const PrivateMount view("none", hung_, directory_ / "view", MS_BIND);
  EXPECT_THAT(soon(getLocalVolumes), Optional(Contains(hung_)));
  EXPECT_EQ(soon([&] { return volumeFreespace(directory_ / "view"); }), 0U);
}

TEST_F(HangingVolumes, AVolumeBelowOneThatHangsIsWaitedForAsLittle) {
  // Looked up while the volume above answers nothing: the kernel has the path of a mount point in memory.
  fs::create_directory(directory_ / "other/below");
  {
    const PrivateMount below = PrivateMount::tmpfs(directory_ / "other/below", "1m");
    hang(directory_ / "other");
    EXPECT_TRUE(soon(getLocalVolumes));
    EXPECT_EQ(soon([&] { return volumeFreespace(directory_ / "other/below"); }), 0U);
    hanging_.back()->end();
    EXPECT_NE(soon([&] { return volumeFreespace(directory_ / "other/below"); }), 0U);
  }
}

TEST_F(HangingVolumes, OneMountedOverAVolumeThatWasReadBeforeIsNotTakenForIt) {
  const PrivateMount other = PrivateMount::tmpfs(directory_ / "other", "1m");
  VolumeSource& source = VolumeSource::current();
  static_cast<void>(source.mounts());
  EXPECT_TRUE(source.space(directory_ / "other"));
  hang(directory_ / "other");
  EXPECT_EQ(soon([&] { return source.space(directory_ / "other").has_value(); }), false);
  EXPECT_TRUE(source.space(full_));
}

TEST_F(HangingVolumes, OneThatGotTheNumberOfAnotherMountIsNotTakenForIt) {
  VolumeSource& source = VolumeSource::current();
  bool any_number_again = false;
  for (int i = 0; i < 4; ++i) {
    std::uint64_t number = 0;
    {
      const PrivateMount other = PrivateMount::tmpfs(directory_ / "other", "1m");
      for (const MountEntry& mount : source.mounts()) {
        if (mount.target == directory_ / "other") number = mount.id;
      }
    }
    hang(directory_ / "other");
    EXPECT_EQ(soon([&] { return source.space(directory_ / "other").has_value(); }), false);
    for (const MountEntry& mount : source.mounts())
      any_number_again |= mount.target == directory_ / "other" && mount.id == number;
    hanging_.back()->end();
    hanging_.clear();
  }
  EXPECT_TRUE(any_number_again) << "the kernel gave no number again, so nothing was tried";
}

TEST_F(HangingVolumes, WhatIsMountedWhereOneHungIsAskedByItself) {
  hang(hung_);
  EXPECT_EQ(soon([&] { return volumeFreespace(hung_); }), 0U);
  ASSERT_EQ(::umount2(hung_.c_str(), MNT_DETACH), 0);  // its question is still out
  // Of a type that is asked by a probe as well.
  const PrivateMount layers = PrivateMount::tmpfs(directory_ / "other", "1m");
  for (const char* const name : {"lower", "upper", "work"})
    fs::create_directory(directory_ / (std::string("other/") + name));
  const std::string at = directory_ / "other/";
  const PrivateMount overlay("overlay", "none", hung_, 0,
                             "lowerdir=" + at + "lower,upperdir=" + at + "upper,workdir=" + at + "work");
  EXPECT_GT(soon([&] { return volumeFreespace(hung_); }), 0U);
}

TEST_F(HangingVolumes, AQuestionAboutQuotasDoesNotWait) {
  hang(hung_);
  const auto over = soon([] { return quotaVolumes(::getuid()); });
  ASSERT_TRUE(over);
  EXPECT_THAT(over->value_or(std::vector<std::string>()), Not(Contains(hung_)));
}

TEST_F(HangingVolumes, TheRecordOfFiguresIsCheckedWithoutThem) {
  hang(hung_);
  const Date now = currentDate();
  RecentVolumes volumes;
  for (const std::string& path : {full_, hung_}) {
    RecentServices services;
    services.insert_or_assign("com.example.cache",
                              KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(1, now));
    volumes.emplace(path, KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(services, 0, now, path));
  }
  const auto record = KelvaneRecentInfo::kelvaneRecentInfo(volumes);
  EXPECT_EQ(soon([&] { return record->validate(0, 3600); }), KelvaneRecentInfo::nothing_to_do);
}

}  // namespace
}  // namespace kelvane::tests
