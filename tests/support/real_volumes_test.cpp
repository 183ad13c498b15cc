// The system's own mounts, file systems and journal socket, in a mount namespace of this program's own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <algorithm>
#include <array>
#include <filesystem>

#include "common/keys.h"
#include "platform/foundation/file_descriptor.h"
#include "support/mount_table.h"
#include "support/quota.h"
#include "support/standard_log.h"
#include "support/volumes.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

const bool private_mounts = enterPrivateMounts();

class RealVolumes : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
    for (const char* name : {"a", "b"}) std::filesystem::create_directory(directory_ / name);
  }
  static bool validates(const std::string& volume) { return validateVolume({{KELVANE_VOLUME, volume}}); }

  const test::TemporaryDirectory directory_;
  const std::string a_ = directory_ / "a";
  const std::string b_ = directory_ / "b";
};

/// A file of so many bytes, which are really taken.
class Ballast {
 public:
  Ballast(std::string path, off_t bytes) : path_(std::move(path)) {
    const FileDescriptor file(::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(::posix_fallocate(file.get(), 0, bytes), 0);
  }
  ~Ballast() { ::unlink(path_.c_str()); }

 private:
  const std::string path_;
};

TEST_F(RealVolumes, AMountedTmpfsIsAVolumeUntilItIsUnmounted) {
  EXPECT_FALSE(validates(a_));
  {
    const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m");
    EXPECT_THAT(getLocalVolumes(), Contains(a_));
    EXPECT_TRUE(validates(a_));
    EXPECT_TRUE(validates("/" + a_ + "/"));
  }
  EXPECT_THAT(getLocalVolumes(), Not(Contains(a_)));
  EXPECT_FALSE(validates(a_));
}

TEST_F(RealVolumes, AReadOnlyMountIsNone) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m", MS_RDONLY);
  EXPECT_FALSE(validates(a_));
}

TEST_F(RealVolumes, AMountBecomesNoneWhenItIsMadeReadOnly) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m");
  EXPECT_TRUE(validates(a_));
  ASSERT_EQ(::mount(nullptr, a_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  EXPECT_FALSE(validates(a_));
}

TEST_F(RealVolumes, ASecondViewOfAVolumeIsNotAnotherVolume) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m");
  std::filesystem::create_directory(a_ + "/folder");
  const PrivateMount bind("none", a_ + "/folder", b_, MS_BIND);
  EXPECT_TRUE(validates(a_));
  EXPECT_FALSE(validates(b_));
}

TEST_F(RealVolumes, AFolderOfAFileSystemThatIsMountedNowhereElseIsAVolumeAndAFileIsNot) {
  const std::string file = directory_ / "file";
  directory_.write("file", "");
  auto tmpfs = std::make_unique<PrivateMount>("tmpfs", "none", a_);
  auto other = std::make_unique<PrivateMount>("tmpfs", "none", b_);
  std::filesystem::create_directory(a_ + "/folder");
  directory_.write("b/file", "");
  std::filesystem::create_directory(directory_ / "c");
  const PrivateMount folder("none", a_ + "/folder", directory_ / "c", MS_BIND);
  const PrivateMount single("none", b_ + "/file", file, MS_BIND);
  tmpfs.reset();
  other.reset();
  EXPECT_TRUE(validates(directory_ / "c"));
  EXPECT_FALSE(validates(file));
}

TEST_F(RealVolumes, AFullTmpfsIsLowAndStaysSoUntilItIsClearByAMargin) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "64m");
  EXPECT_THAT(lowSpaceVolumes(), Optional(Not(Contains(a_))));
  {
    const Ballast most(a_ + "/most", 57 << 20);
    {
      const Ballast more(a_ + "/more", 1 << 20);
      EXPECT_EQ(volumeFreespace(a_), 6U << 20);
      EXPECT_THAT(lowSpaceVolumes(), Optional(Contains(a_)));
    }
    EXPECT_EQ(volumeFreespace(a_), 7U << 20);  // above 10 %, below 12.5 %
    EXPECT_THAT(lowSpaceVolumes(), Optional(Contains(a_)));
  }
  EXPECT_THAT(lowSpaceVolumes(), Optional(Not(Contains(a_))));
}

TEST_F(RealVolumes, ATmpfsWithoutInodesIsLow) {
  const PrivateMount tmpfs("tmpfs", "none", a_, 0, "size=64m,nr_inodes=20");
  EXPECT_THAT(lowSpaceVolumes(), Optional(Not(Contains(a_))));
  for (int i = 0; i < 19; ++i) directory_.write("a/" + std::to_string(i), "");
  EXPECT_THAT(lowSpaceVolumes(), Optional(Contains(a_)));
}

TEST_F(RealVolumes, AFolderThatDoesNotExistHasNoFreeSpace) {
  EXPECT_EQ(volumeFreespace(directory_ / "none"), 0U);
}

TEST_F(RealVolumes, AFileSystemWithoutABlockDeviceKeepsNoQuotas) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m");
  EXPECT_FALSE(quotaUsage(a_, ::getuid()));
}

TEST_F(RealVolumes, TheTablesGenerationChangesWithTheTableAndNotOtherwise) {
  MountTableWatch watch;
  const std::uint64_t first = watch.generation();
  EXPECT_NE(first, 0U);
  EXPECT_EQ(watch.generation(), first);
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "16m");
  const std::uint64_t second = watch.generation();
  EXPECT_NE(second, first);
  EXPECT_EQ(watch.generation(), second);
}

/// Where the journal listens, with the test in the journal's place.
class JournalSocket {
 public:
  JournalSocket() : run_("tmpfs", "none", "/run") {
    std::filesystem::create_directories("/run/systemd/journal");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/run/systemd/journal/socket";
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  [[nodiscard]] std::string receive() const {
    std::array<char, 4096> bytes{};
    const ssize_t n = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    return n > 0 ? std::string(bytes.data(), static_cast<std::size_t>(n)) : std::string();
  }

 private:
  const PrivateMount run_;
  const FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(RealVolumes, TheJournalGetsEachLineWithPriorityIdentifierAndLevel) {
  const JournalSocket journal;
  StandardLogHandle handle(5, StandardLogHandle::Sink::journal, -1);
  handle.write(3, "init failed");
  const std::string notable = journal.receive();
  EXPECT_EQ(notable, "MESSAGE=init failed\nPRIORITY=4\nSYSLOG_IDENTIFIER=Kelvane\nKELVANE_LEVEL=3\n");
  handle.write(5, "init traced");
  EXPECT_THAT(journal.receive(), HasSubstr("PRIORITY=7\nSYSLOG_IDENTIFIER=Kelvane\nKELVANE_LEVEL=5\n"));
}

}  // namespace
}  // namespace kelvane::tests
