// The daemon's start and end, as whoever manages it sees them.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

TEST(Lifecycle, ADaemonThatSaysItIsReadyCanBeConnectedToAtOnce) {
  Daemon daemon;
  ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
  EXPECT_TRUE(Client(daemon).isServed());
  std::ifstream posted(daemon.runtimeFolder() + "/notify/com.orvel.kelvane.launched");
  int times = 0;
  posted >> times;
  EXPECT_EQ(times, 1);
  struct stat socket {};
  ASSERT_EQ(::stat(daemon.socket().c_str(), &socket), 0);
  EXPECT_EQ(socket.st_mode & 0777, 0666U);
  ASSERT_EQ(::stat(daemon.launchSocket().c_str(), &socket), 0);
  EXPECT_EQ(socket.st_mode & 0777, 0600U);
}

TEST(Lifecycle, SigtermWhileAPurgeIsRunningEndsTheProcessAtOnceWithStatusZero) {
  const Volume volume(8);
  Daemon daemon;
  Process service({built("service_program"), "silent", "com.example.silent", volume.fill("silent", 1, 4096),
                   "--daemon", daemon.socket()});
  ASSERT_TRUE(service.printed("registered"));
  Client client(daemon);
  client.startPurge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 4096}, {KELVANE_PURGE_TIMEOUT, 300}});
  ASSERT_TRUE(service.printed("asked 1 4096"));
  const auto signalled = std::chrono::steady_clock::now();
  daemon.process().signal(SIGTERM);
  const int status = daemon.process().wait();
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(2));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(client.finishPurge());
}

TEST(Lifecycle, ASecondDaemonOnTheSameSocketIsRefusedAndTheFirstGoesOn) {
  Daemon daemon;
  const Finished second = run({built("kelvaned")}, {"RUNTIME_DIRECTORY=" + daemon.runtimeFolder(),
                                                    "STATE_DIRECTORY=" + daemon.runtimeFolder()});
  EXPECT_EQ(second.status, 1) << second.output;
  EXPECT_NE(second.output.find(daemon.runtimeFolder()), std::string::npos) << second.output;
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST(Lifecycle, HelpAndVersionAreAnsweredAndAnUnknownArgumentIsRefused) {
  const Finished help = run({built("kelvaned"), "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("RUNTIME_DIRECTORY"), std::string::npos) << help.output;
  EXPECT_EQ(run({built("kelvaned"), "--version"}).status, 0);
  const Finished unknown = run({built("kelvaned"), "--fast"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.output.find("--fast"), std::string::npos) << unknown.output;
}

TEST(Lifecycle, ARuntimeFolderThatCannotBeUsedIsSaidAndEndsTheStart) {
  const Finished refused = run({built("kelvaned")}, {"RUNTIME_DIRECTORY=/proc/no/such"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.output.find("/proc/no/such"), std::string::npos) << refused.output;
}

TEST(Lifecycle, BadDescriptorsCostALineEachAndTheRestAreRegistered) {
  const std::string at = system_descriptors;
  writeFile(at + "/01-text.plist", "not a property list");
  writeFile(at + "/02-empty.plist", "");
  writeFile(at + "/03-truncated.plist", propertyList("<key>KELVANE_ID</key>").substr(0, 60));
  writeFile(at + "/04-array.plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
  fs::create_symlink(at + "/05-loop-b", at + "/05-loop-a");
  fs::create_symlink(at + "/05-loop-a", at + "/05-loop-b");
  writeFile(at + "/06-large.plist", std::string(10 << 20, ' '));
  ASSERT_EQ(::mkfifo((at + "/07-fifo.plist").c_str(), 0600), 0);
  fs::create_directories(at + "/08-nested/deeper");
  writeFile(
      at + "/08-nested/deeper/good.plist",
      propertyList(
          "<key>KELVANE_ID</key><string>com.example.nested</string><key>KELVANE_DO_NOT_QUERY</key><false/>"));
  writeFile(
      std::string(internal_descriptors) + "/also.plist",
      propertyList(
          "<key>KELVANE_ID</key><string>com.example.also</string><key>KELVANE_DO_NOT_QUERY</key><true/>"));
  {
    Daemon daemon;
    ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
    EXPECT_TRUE(daemon.logged("marking com.example.nested as DO_NOT_QUERY"));
    EXPECT_TRUE(daemon.logged("marking com.example.also as DO_NOT_QUERY"));
    EXPECT_TRUE(daemon.logged("looking at: //System/Library/Kelvane//01-text.plist"));
    // The eight that cannot be used, and the two folders.
    EXPECT_EQ(daemon.process().count("propertyListWithData failed:"), 10U) << daemon.process().output();
    EXPECT_TRUE(daemon.logged("Kelvane, open for business!"));
  }
  for (const auto& entry : fs::directory_iterator(at)) fs::remove_all(entry.path());
  fs::remove(std::string(internal_descriptors) + "/also.plist");
}

}  // namespace
}  // namespace kelvane::tests
