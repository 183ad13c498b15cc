#include "support/mount_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/local_volumes.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

using testing::ElementsAre;

constexpr const char* table =
    R"(22 27 0:21 / /proc rw,relatime - proc proc rw
23 27 0:22 / /sys rw,relatime - sysfs sysfs rw
24 27 0:6 / /dev rw,relatime - devtmpfs udev rw,mode=755
25 24 0:23 / /dev/shm rw,nosuid - tmpfs tmpfs rw
26 27 0:24 / /run rw,nosuid - tmpfs tmpfs rw,mode=755
27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard
28 27 254:0 /var/cache /srv/cache rw,relatime shared:1 - ext4 /dev/vda rw,discard
29 27 254:16 / /mnt/with\040blank\012line\011tab\134slash rw,relatime - xfs /dev/vdb rw
30 27 254:16 / /mnt/second/view rw,relatime - xfs /dev/vdb rw
31 27 0:40 / /var/lib/containers/merged rw,relatime - overlay overlay rw,lowerdir=/l,upperdir=/u,workdir=/w
32 27 0:41 / /net/home rw,relatime - nfs4 server:/home rw,vers=4.2
33 27 0:42 / /net/share rw,relatime - cifs //server/share rw
34 27 0:43 / /tmp rw,nosuid - tmpfs tmpfs rw
35 27 254:32 / /mnt/read-only ro,relatime - ext4 /dev/vdc rw
36 27 254:48 / /mnt/read-only-below rw,relatime - ext4 /dev/vdd ro,errors=remount-ro
37 27 0:44 /@ /data rw,relatime - btrfs /dev/vde rw,subvol=/@
38 27 0:44 /@home /data/home rw,relatime - btrfs /dev/vde rw,subvol=/@home
39 27 0:45 / /pool rw,relatime - zfs pool rw
40 27 0:46 / /home/user/remote rw,relatime - fuse.sshfs user@host: rw
41 27 8:17 / /media/stick rw,relatime - fuseblk /dev/sdb1 rw
42 27 0:47 / /mnt/host rw,relatime - virtiofs tag rw
43 27 253:1 / /mnt/mapped rw,relatime - ext4 system-name rw
44 26 8:33 / /run/media/user/disk rw,relatime - ext4 /dev/sdc1 rw
45 23 0:28 / /sys/fs/cgroup rw,relatime - cgroup2 cgroup2 rw
46 27 254:64 / /mnt/hidden rw,relatime - ext4 /dev/vdf rw
47 46 0:48 / /mnt/hidden rw,relatime - proc proc rw
)";

class MountTable : public testing::Test {
 protected:
  void SetUp() override {
    directory_.write("mountinfo", table);
    const auto read = readMountTable(directory_ / "mountinfo");
    ASSERT_TRUE(read);
    mounts_ = *read;
  }
  const MountEntry& at(const std::string& source) const {
    for (const MountEntry& mount : mounts_) {
      if (mount.source == source) return mount;
    }
    throw std::out_of_range(source);
  }

  const test::TemporaryDirectory directory_;
  std::vector<MountEntry> mounts_;
};

TEST_F(MountTable, EveryMountIsRead) {
  ASSERT_EQ(mounts_.size(), 26U);
  const MountEntry& root = at("/dev/vda");
  EXPECT_EQ(root.root, "/");
  EXPECT_EQ(root.target, "/");
  EXPECT_EQ(root.type, "ext4");
  EXPECT_EQ(root.device, "254:0");
  EXPECT_TRUE(root.writable);
}

TEST_F(MountTable, EscapesInAPathAreUndone) {
  EXPECT_EQ(at("/dev/vdb").target, "/mnt/with blank\nline\ttab\\slash");
}

TEST_F(MountTable, AMountIsWritableWhenItselfAndItsFileSystemAre) {
  EXPECT_FALSE(at("/dev/vdc").writable);
  EXPECT_FALSE(at("/dev/vdd").writable);
  EXPECT_TRUE(at("/dev/vde").writable);
}

TEST_F(MountTable, TheLocalVolumesAreTheWritableLocalMountsOncePerDevice) {
  std::vector<std::string> volumes;
  for (const MountEntry& volume : localVolumesAmong(mounts_)) volumes.push_back(volume.target);
  EXPECT_THAT(volumes, ElementsAre("/", "/mnt/second/view", "/var/lib/containers/merged", "/tmp", "/data",
                                   "/pool", "/media/stick", "/mnt/mapped", "/run/media/user/disk"));
}

TEST_F(MountTable, AMissingTableIsNothing) { EXPECT_FALSE(readMountTable(directory_ / "missing")); }

TEST_F(MountTable, TheSystemsOwnTableHoldsTheRoot) {
  const auto own = readMountTable();
  ASSERT_TRUE(own);
  EXPECT_TRUE(
      std::any_of(own->begin(), own->end(), [](const MountEntry& mount) { return mount.target == "/"; }));
}

MountEntry disk(const std::string& root, const std::string& target) {
  return {"/dev/vda", root, target, "ext4", "254:0", true};
}

std::string chosenAmong(const std::vector<MountEntry>& mounts) {
  const std::vector<MountEntry> volumes = localVolumesAmong(mounts);
  return volumes.size() == 1 ? volumes[0].target : std::to_string(volumes.size()) + " volumes";
}

TEST(LocalVolumes, OfSeveralMountsOfADeviceTheWholeFileSystemStandsForIt) {
  EXPECT_EQ(chosenAmong({disk("/folder", "/a"), disk("/", "/long/path"), disk("/", "/longer/path")}),
            "/long/path");
}

TEST(LocalVolumes, WithoutTheWholeFileSystemTheShortestPathStandsForIt) {
  EXPECT_EQ(chosenAmong({disk("/deploy/var", "/var"), disk("/deploy", "/"), disk("/deploy/home", "/home")}),
            "/");
}

TEST(LocalVolumes, OfTwoPathsOfOneLengthTheFirstStands) {
  EXPECT_EQ(chosenAmong({disk("/", "/b"), disk("/", "/a")}), "/b");
}

TEST(LocalVolumes, AReadOnlyViewOfADeviceDoesNotHideTheWritableOne) {
  MountEntry read_only = disk("/", "/a");
  read_only.writable = false;
  EXPECT_EQ(chosenAmong({read_only, disk("/folder", "/a/long/path")}), "/a/long/path");
}

TEST(LocalVolumes, ATmpfsBesideASystemFolderIsOne) {
  EXPECT_EQ(chosenAmong({{"tmpfs", "/", "/running", "tmpfs", "0:50", true}}), "/running");
  EXPECT_EQ(chosenAmong({{"tmpfs", "/", "/run", "tmpfs", "0:50", true}}), "0 volumes");
  EXPECT_EQ(chosenAmong({{"tmpfs", "/", "/dev/shm", "tmpfs", "0:50", true}}), "0 volumes");
}

TEST(LocalVolumes, WhatAProgramServesIsOneWhenTheKernelSaysThatItIsOnABlockDevice) {
  for (const char* const type : {"fuseblk", "fuseblk.ntfs-3g", "fuse.exfat"}) {
    EXPECT_EQ(chosenAmong({{"/dev/sdb1", "/", "/stick", type, "8:17", true}}), "/stick") << type;
  }
  // The program chooses the name of its source.
  for (const char* const type : {"fuse", "fuse.forged", "fuseblk", "fuseblk.forged"}) {
    EXPECT_EQ(chosenAmong({{"/dev/sdb1", "/", "/stick", type, "0:50", true}}), "0 volumes") << type;
  }
}

TEST(Mounts, BehindWhichSomebodyElseIsMayNotAnswer) {
  for (const char* const type : {"fuse", "fuse.sshfs", "fuseblk", "fuseblk.ntfs-3g", "nfs4", "cifs", "9p",
                                 "virtiofs", "autofs", "gfs2", "ocfs2"}) {
    EXPECT_TRUE(mayNotAnswer({"/dev/sdb1", "/", "/stick", type, "8:17", true})) << type;
  }
  for (const char* const type : {"ext4", "xfs", "btrfs", "zfs", "tmpfs", "overlay", "vfat", "fusectl"})
    EXPECT_FALSE(mayNotAnswer({"/dev/sdb1", "/", "/stick", type, "8:17", true})) << type;
}

TEST(Mounts, OnlyThoseOfKnownTypesAnswerAtOnce) {
  for (const char* const type : {"ext2", "ext3", "ext4", "xfs", "btrfs", "f2fs", "tmpfs"})
    EXPECT_TRUE(answersAtOnce({"/dev/sdb1", "/", "/stick", type, "8:17", true})) << type;
  for (const char* const type :
       {"fuse", "fuseblk", "fuseblk.ntfs-3g", "vfat", "overlay", "zfs", "nfs", "gfs2", "unheard-of", ""}) {
    EXPECT_FALSE(answersAtOnce({"/dev/sdb1", "/", "/stick", type, "8:17", true})) << type;
  }
}

TEST(PlainPath, DropsDoubledAndTrailingSlashes) {
  EXPECT_EQ(plainPath("/"), "/");
  EXPECT_EQ(plainPath("//"), "/");
  EXPECT_EQ(plainPath("//mnt///data//"), "/mnt/data");
  EXPECT_EQ(plainPath("/mnt/./data"), "/mnt/./data");
  EXPECT_EQ(plainPath("mnt"), "");
  EXPECT_EQ(plainPath(""), "");
}

}  // namespace
}  // namespace kelvane::tests
