// Which volume holds a path or a descriptor, with real mounts in a private mount namespace.

#include "kelvane/volume.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <filesystem>

#include "platform/foundation/file_descriptor.h"
#include "support/volumes.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::isOnVolume;
using client::volumeOf;
using testing::HasSubstr;

const bool private_mounts = enterPrivateMounts();

class AVolume : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
    for (const char* name : {"a", "b"}) fs::create_directory(directory_ / name);
  }
  static FileDescriptor opened(const std::string& path) {
    return FileDescriptor(::open(path.c_str(), O_PATH | O_CLOEXEC));
  }
  /// The volume, or the error.
  template <class Of>
  static std::string of(const Of& what) {
    const client::Result<std::string> volume = volumeOf(what);
    if (!volume) {
      EXPECT_EQ(volume.error().kind, client::Failure::badRequest);
    }
    return volume ? *volume : volume.error().reason;
  }

  const test::TemporaryDirectory directory_;
  const std::string a_ = fs::canonical(directory_.path()) / "a";
  const std::string b_ = fs::canonical(directory_.path()) / "b";
};

TEST_F(AVolume, HoldsTheFilesAndDirectoriesBelowItsMountPoint) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/in");
  writeFile((a_ + "/in/file").c_str(), "");
  EXPECT_EQ(of(a_), a_);
  EXPECT_EQ(of(a_ + "//in/"), a_);
  EXPECT_EQ(of(opened(a_ + "/in").get()), a_);
  EXPECT_NE(of(b_), a_);
}

TEST_F(AVolume, IsWhereALinkLeads) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory_symlink(a_, directory_ / "link");
  EXPECT_EQ(of(directory_ / "link"), a_);
}

TEST_F(AVolume, HoldsItsBindMountsElsewhere) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/in");
  const PrivateMount bound("none", a_ + "/in", b_, MS_BIND);
  EXPECT_EQ(of(b_), a_);
  EXPECT_EQ(of(opened(b_).get()), a_);
  EXPECT_TRUE(isOnVolume(opened(b_).get(), a_));
}

TEST_F(AVolume, IsNamedByOneOfTheMountsOfItsDevice) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(b_, "1m");
  const std::string longer = directory_ / "longer";
  fs::create_directory(longer);
  const PrivateMount second("none", b_, longer, MS_BIND);
  EXPECT_EQ(of(longer), b_);
  EXPECT_EQ(of(opened(longer).get()), b_);
}

TEST_F(AVolume, HoldsASingleFileThatIsMountedElsewhere) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  for (const std::string& file : {a_ + "/file", directory_ / "file"})
    const FileDescriptor made(::creat(file.c_str(), 0600));
  const PrivateMount bound("none", a_ + "/file", directory_ / "file", MS_BIND);
  EXPECT_EQ(of(directory_ / "file"), a_);
}

TEST_F(AVolume, IsTheLastOfSeveralAtOneMountPoint) {
  const PrivateMount below = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/below");
  const FileDescriptor hidden = opened(a_ + "/below");
  const PrivateMount above = PrivateMount::tmpfs(a_, "1m");
  EXPECT_EQ(of(a_), a_);
  EXPECT_TRUE(isOnVolume(opened(a_).get(), a_));
  EXPECT_FALSE(isOnVolume(hidden.get(), a_));
  EXPECT_THAT(of(hidden.get()), HasSubstr("which is not a volume that the daemon serves"));
}

// --- descriptors are not names ---

TEST_F(AVolume, OfADescriptorStaysWhatItIsWhenNamesAreGivenToSomethingElse) {
  const PrivateMount first = PrivateMount::tmpfs(a_, "1m");
  const PrivateMount second = PrivateMount::tmpfs(b_, "1m");
  fs::create_directory(a_ + "/cache");
  fs::create_directory(b_ + "/cache");
  const FileDescriptor cache = opened(a_ + "/cache");
  fs::rename(a_ + "/cache", a_ + "/moved");
  fs::create_directory_symlink(b_ + "/cache", a_ + "/cache");
  EXPECT_EQ(of(cache.get()), a_);
  EXPECT_EQ(of(a_ + "/cache"), b_);
  EXPECT_FALSE(isOnVolume(cache.get(), b_));
}

TEST_F(AVolume, OfADescriptorThatWasMountedOverStaysWhatItIs) {
  const PrivateMount first = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/cache");
  const FileDescriptor cache = opened(a_ + "/cache");
  const PrivateMount over = PrivateMount::tmpfs(a_ + "/cache", "1m");
  EXPECT_EQ(of(cache.get()), a_);
  EXPECT_EQ(of(a_ + "/cache"), a_ + "/cache");
}

TEST_F(AVolume, ThatWasUnmountedHoldsNothing) {
  FileDescriptor kept;
  {
    const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
    kept = opened(a_);
    EXPECT_TRUE(isOnVolume(kept.get(), a_));
  }
  EXPECT_FALSE(isOnVolume(kept.get(), a_));
  EXPECT_THAT(of(kept.get()), HasSubstr("is on no mount of this process"));
}

TEST_F(AVolume, IsFoundAlsoForWhatHasBeenDeleted) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/cache");
  const FileDescriptor cache = opened(a_ + "/cache");
  fs::remove(a_ + "/cache");
  EXPECT_EQ(of(cache.get()), a_);
}

// --- the volume as a request names it ---

TEST_F(AVolume, IsTheSameInASandboxThatMakesItReadOnlyAndShowsAPartOfIt) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  fs::create_directory(a_ + "/cache");
  const PrivateMount writable("none", a_ + "/cache", a_ + "/cache", MS_BIND);
  ASSERT_EQ(::mount(nullptr, a_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(of(a_ + "/cache"), a_ + "/cache") << "the only mount of the device that can be written";
  EXPECT_TRUE(isOnVolume(opened(a_ + "/cache").get(), a_));
  EXPECT_FALSE(isOnVolume(opened(b_).get(), a_));
}

TEST_F(AVolume, IsNotTakenForOneWhosePathBeginsTheSame) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m");
  EXPECT_FALSE(isOnVolume(opened(a_).get(), directory_.path()));
  EXPECT_FALSE(isOnVolume(opened(a_).get(), ""));
  EXPECT_FALSE(isOnVolume(opened(a_).get(), a_ + "/nothing"));
  EXPECT_TRUE(isOnVolume(opened(a_).get(), a_ + "/"));
}

// --- paths that are on no volume ---

TEST_F(AVolume, IsNotOneThatCannotBeWritten) {
  const PrivateMount tmpfs = PrivateMount::tmpfs(a_, "1m", MS_RDONLY);
  EXPECT_THAT(of(a_), HasSubstr("is on " + a_ + " (tmpfs), which is not a volume that the daemon serves"));
}

TEST_F(AVolume, IsNotFoundForAMissingPath) {
  EXPECT_EQ(of(directory_ / "nothing"), '"' + (directory_ / "nothing") + "\": No such file or directory");
  EXPECT_EQ(of(std::string()), "\"\": No such file or directory");
  EXPECT_EQ(of(-1), "descriptor -1: Bad file descriptor");
  EXPECT_FALSE(isOnVolume(-1, a_));
}

TEST_F(AVolume, IsNotFoundForASocket) {
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_THAT(of(socket.get()), HasSubstr("is on no mount of this process"));
}

/// Opening a file on it would wait for the program that serves it, and there is none.
TEST_F(AVolume, IsNotSearchedBehindAProgramThatDoesNotAnswer) {
  const FileDescriptor device(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(device) << "this machine has no /dev/fuse";
  const std::string options = "fd=" + std::to_string(device.get()) + ",rootmode=40000,user_id=0,group_id=0";
  const PrivateMount fuse("fuse", "nobody", a_, 0, options);
  EXPECT_THAT(of(a_ + "/in/here"), HasSubstr("is on " + a_ + " (fuse), which is not a volume"));
  EXPECT_THAT(of(a_), HasSubstr("(fuse)"));
}

}  // namespace
}  // namespace kelvane::tests
