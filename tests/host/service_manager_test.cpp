#include "platform/host/service_manager.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

FileDescriptor socketAt(const std::string& path) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), std::begin(address.sun_path));
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return socket;
}

TEST(Readiness, WhoAskedIsTold) {
  const test::TemporaryDirectory directory;
  const FileDescriptor manager = socketAt(directory / "notify");
  const ScopedEnvironment environment("NOTIFY_SOCKET", directory / "notify");
  EXPECT_TRUE(notifyReady());
  std::array<char, 64> message{};
  ASSERT_EQ(::recv(manager.get(), message.data(), message.size(), 0), 7);
  EXPECT_STREQ(message.data(), "READY=1");
}

TEST(Readiness, WithoutAServiceManagerNobodyIsTold) {
  const ScopedEnvironment environment("NOTIFY_SOCKET", std::nullopt);
  EXPECT_FALSE(notifyReady());
}

/// Runs `test` in a child process to which two descriptors were handed over as a service manager does it, the
/// first named "one", the second "two"; what it returns.
int inActivatedProcess(int (*test)()) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int descriptor : {3, 4}) {
      const int file = ::open("/dev/null", O_RDONLY);
      if (file != descriptor) ::dup2(file, descriptor);
    }
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "2", 1);
    ::setenv("LISTEN_FDNAMES", "one:two", 1);
    ::_exit(test());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PassedSockets, ADescriptorIsFoundByItsName) {
  EXPECT_EQ(inActivatedProcess([] { return takePassedSocket("two").release(); }), 4);
  EXPECT_EQ(inActivatedProcess([] { return takePassedSocket("one").release(); }), 3);
}

TEST(PassedSockets, ANameThatWasNotHandedOverIsNone) {
  EXPECT_EQ(inActivatedProcess([] { return takePassedSocket("three") ? 1 : 0; }), 0);
}

TEST(PassedSockets, EachIsGivenAwayOnce) {
  EXPECT_EQ(inActivatedProcess([] {
              const int first = takePassedSocket("one").release();
              return takePassedSocket("one") ? 1 : first;
            }),
            3);
}

TEST(PassedSockets, WhatWasHandedToAnotherProcessIsNotOurs) {
  EXPECT_EQ(inActivatedProcess([] {
              ::setenv("LISTEN_PID", "1", 1);
              return takePassedSocket("one") ? 1 : 0;
            }),
            0);
  EXPECT_FALSE(takePassedSocket("one"));
}

TEST(RandomIdentifier, IsThirtyTwoHexadecimalDigitsAndNeverTheSame) {
  const std::string one = randomIdentifier();
  EXPECT_EQ(one.size(), 32U);
  EXPECT_EQ(one.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(one, randomIdentifier());
}

class JournalStream : public testing::Test {
 protected:
  JournalStream() {
    struct stat status {};
    EXPECT_EQ(::fstat(stream_.get(), &status), 0);
    name_ = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  }
  const test::TemporaryDirectory directory_;
  const FileDescriptor journal_ = socketAt(directory_ / "journal");
  const FileDescriptor stream_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::string name_;
};

TEST_F(JournalStream, IsTheDescriptorThatTheEnvironmentNames) {
  EXPECT_TRUE(isJournalStream(stream_.get(), name_.c_str(), directory_ / "journal"));
}

TEST_F(JournalStream, AnotherDescriptorIsNone) {
  EXPECT_FALSE(isJournalStream(journal_.get(), name_.c_str(), directory_ / "journal"));
  EXPECT_FALSE(isJournalStream(-1, name_.c_str(), directory_ / "journal"));
}

TEST_F(JournalStream, WithoutTheVariableThereIsNone) {
  EXPECT_FALSE(isJournalStream(stream_.get(), nullptr, directory_ / "journal"));
  EXPECT_FALSE(isJournalStream(stream_.get(), "", directory_ / "journal"));
}

TEST_F(JournalStream, WithoutTheJournalsSocketThereIsNone) {
  EXPECT_FALSE(isJournalStream(stream_.get(), name_.c_str(), directory_ / "missing"));
  directory_.write("file", "");
  EXPECT_FALSE(isJournalStream(stream_.get(), name_.c_str(), directory_ / "file"));
}

}  // namespace
}  // namespace kelvane::tests
