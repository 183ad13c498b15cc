#include "platform/foundation/whole_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/deep_directories.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane {
namespace {

constexpr std::size_t cap = 1000;

class WholeFileTest : public ::testing::Test {
 protected:
  void expectError(const std::string& path, const std::string& why) {
    const WholeFile file = readWholeFile(path, cap);
    EXPECT_EQ(file.error.value_or("(no error)"), path + ": " + why);
    EXPECT_TRUE(file.bytes.empty());
  }
  test::TemporaryDirectory directory_;
};

std::string textOf(const WholeFile& file) { return {file.bytes.begin(), file.bytes.end()}; }

TEST_F(WholeFileTest, ARegularFileIsReadWhole) {
  const std::string content("a\0b", 3);
  directory_.write("file", content);
  EXPECT_EQ(textOf(readWholeFile(directory_ / "file", cap)), content);
}

TEST_F(WholeFileTest, AnEmptyFileGivesNoBytesAndNoError) {
  directory_.write("file", "");
  const WholeFile file = readWholeFile(directory_ / "file", cap);
  EXPECT_FALSE(file.error);
  EXPECT_TRUE(file.bytes.empty());
}

TEST_F(WholeFileTest, AFileOfTheCapIsReadAndOneByteMoreRefused) {
  directory_.write("most", std::string(cap, 'x'));
  EXPECT_EQ(readWholeFile(directory_ / "most", cap).bytes.size(), cap);
  directory_.write("more", std::string(cap + 1, 'x'));
  expectError(directory_ / "more", "is larger than 1000 bytes");
}

TEST_F(WholeFileTest, ATenMegabyteFileIsRefused) {
  directory_.write("large", "");
  std::filesystem::resize_file(directory_ / "large", 10 << 20);
  expectError(directory_ / "large", "is larger than 1000 bytes");
}

TEST_F(WholeFileTest, AFileThatSaysItIsEmptyIsReadToItsEnd) {
  const WholeFile file = readWholeFile("/proc/self/mountinfo", 4 << 20);
  EXPECT_FALSE(file.error);
  EXPECT_FALSE(file.bytes.empty());
  const WholeFile capped = readWholeFile("/proc/self/status", 10);
  EXPECT_EQ(capped.error.value_or("(no error)"), "/proc/self/status: is larger than 10 bytes");
}

TEST_F(WholeFileTest, AFIFOIsAnErrorAndIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  expectError(directory_ / "fifo", "is a FIFO, not a regular file");
}

TEST_F(WholeFileTest, ADirectoryIsAnError) {
  expectError(directory_.path(), "is a directory, not a regular file");
}

TEST_F(WholeFileTest, ADeviceIsAnError) {
  expectError("/dev/zero", "is a device, not a regular file");
  expectError("/dev/tty", "is a device, not a regular file");
}

TEST_F(WholeFileTest, ASocketIsAnError) {
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = directory_ / "socket";
  ASSERT_LT(path.size(), sizeof(address.sun_path));
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  expectError(path, "is a socket, not a regular file");
}

TEST_F(WholeFileTest, ASymbolicLinkToARegularFileIsFollowed) {
  directory_.write("file", "content");
  std::filesystem::create_symlink("file", directory_ / "link");
  EXPECT_EQ(textOf(readWholeFile(directory_ / "link", cap)), "content");
}

TEST_F(WholeFileTest, ALoopOfLinksIsAnError) {
  std::filesystem::create_symlink("b", directory_ / "a");
  std::filesystem::create_symlink("a", directory_ / "b");
  expectError(directory_ / "a", "Too many levels of symbolic links");
}

TEST_F(WholeFileTest, AMissingFileAndADanglingLinkAreErrors) {
  expectError(directory_ / "missing", "No such file or directory");
  std::filesystem::create_symlink("missing", directory_ / "link");
  expectError(directory_ / "link", "No such file or directory");
}

TEST_F(WholeFileTest, APathMayBeLongerThanTheKernelTakesAtOnce) {
  const std::string deep =
      test::makeDeepDirectories(directory_.path(), std::string(250, 'd'), 40,
                                [](int directory) { test::writeFileAt(directory, "file", "content"); });
  ASSERT_GT(deep.size(), std::size_t{2 * PATH_MAX});
  const std::string path = directory_ / deep;
  EXPECT_EQ(textOf(readWholeFile(path + "/file", cap)), "content");
  EXPECT_EQ(textOf(readWholeFile(path + "//file", cap)), "content");
  expectError(path, "is a directory, not a regular file");
  expectError(path + "/missing", "No such file or directory");
  expectError(directory_ / "missing/" + deep + "/file", "No such file or directory");
}

TEST_F(WholeFileTest, ANameLongerThanAnyFileCanHaveIsAnError) {
  expectError("/" + std::string(2 * PATH_MAX, 'x'), "File name too long");
  expectError(directory_ / std::string(2 * PATH_MAX, 'x'), "File name too long");
}

TEST_F(WholeFileTest, APathWithANULIsAnErrorAndNotCutShort) {
  directory_.write("file", "content");
  const std::string path = directory_ / std::string("file\0x", 6);
  EXPECT_EQ(readWholeFile(path, cap).error.value_or("(no error)"), path + ": holds a NUL byte in its name");
}

}  // namespace
}  // namespace kelvane
