// The wire belongs to no language: stock tools and other people's libraries speak to a real daemon.

#include <gtest/gtest.h>
#include <csignal>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

std::string python() { return "/usr/bin/python3"; }
std::string source(const std::string& path) { return std::string(KELVANE_SOURCE_FOLDER) + "/" + path; }

TEST(ForeignPeers, BusctlMakesAPurge) {
  const Volume volume(16);
  Daemon daemon;
  Process service({built("service_program"), "deletes", "com.example.busctl", volume.fill("b", 8, mebibyte),
                   "--daemon", daemon.socket()});
  ASSERT_TRUE(service.printed("registered"));
  const std::uint64_t before = volume.freeSpace();
  const Finished call =
      run({"busctl", "--address=" + daemon.address(), "call", "com.orvel.Kelvane", "/com/orvel/kelvane",
           "com.orvel.KelvaneClientProtocol", "clientPurge", "a{sv}", "2", "KELVANE_VOLUME", "s",
           volume.path(), "KELVANE_AMOUNT", "t", std::to_string(2 * mebibyte)});
  EXPECT_EQ(call.status, 0) << call.output;
  EXPECT_NE(call.output.find("\"KELVANE_AMOUNT\" t 2097152"), std::string::npos) << call.output;
  EXPECT_EQ(volume.freeSpace() - before, 2 * mebibyte);
}

TEST(ForeignPeers, GdbusMakesAPurge) {
  const Volume volume(16);
  Daemon daemon;
  Process service({built("service_program"), "deletes", "com.example.gdbus", volume.fill("g", 8, mebibyte),
                   "--daemon", daemon.socket()});
  ASSERT_TRUE(service.printed("registered"));
  const std::uint64_t before = volume.freeSpace();
  const Finished call =
      run({"gdbus", "call", "--address", daemon.address(), "--dest", "com.orvel.Kelvane", "--object-path",
           "/com/orvel/kelvane", "--method", "com.orvel.KelvaneClientProtocol.clientPurge",
           "{'KELVANE_VOLUME': <'" + volume.path() + "'>, 'KELVANE_AMOUNT': <uint64 2097152>}"});
  EXPECT_EQ(call.status, 0) << call.output;
  EXPECT_NE(call.output.find("'KELVANE_AMOUNT': <uint64 2097152>"), std::string::npos) << call.output;
  EXPECT_EQ(volume.freeSpace() - before, 2 * mebibyte);
}

TEST(ForeignPeers, BusctlIntrospectsTheClientProtocol) {
  Daemon daemon;
  const Finished call = run(
      {"busctl", "--address=" + daemon.address(), "introspect", "com.orvel.Kelvane", "/com/orvel/kelvane"});
  EXPECT_EQ(call.status, 0) << call.output;
  for (const char* row : {".clientCheckin", "sha{sv}", ".clientGetState", ".clientPurge"}) {
    EXPECT_NE(call.output.find(row), std::string::npos) << row << "\n" << call.output;
  }
}

TEST(ForeignPeers, APythonServiceChecksInIsPingedPurgedAndDroppedWhenItDies) {
  const Volume volume(16);
  Daemon daemon;
  Process service({python(), source("examples/python_service.py"), "--id", "com.example.python", "--folder",
                   volume.fill("python", 8, mebibyte), "--lifetime", "0", "--youngest", "0", "--daemon",
                   daemon.socket()});
  ASSERT_TRUE(service.printed("registered")) << service.output();
  EXPECT_TRUE(daemon.logged("ping got pong"));

  Client client(daemon);
  const std::uint64_t before = volume.freeSpace();
  const auto result = client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 2 * mebibyte}});
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 2 * mebibyte) << service.output();
  EXPECT_EQ(volume.freeSpace() - before, 2 * mebibyte);

  service.signal(SIGKILL);
  service.wait();
  EXPECT_TRUE(daemon.logged("interruptionHandler ENTRY"));
  const auto without = client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, mebibyte}});
  ASSERT_TRUE(without);
  EXPECT_EQ((*without)[KELVANE_AMOUNT].unsignedLongLongValue(), 0U);
}

TEST(ForeignPeers, TheLaunchSocketRunsTheDailyActivityAndRefusesUnknownNames) {
  Daemon daemon;
  const auto launch = [&](const std::string& name) {
    return run({"busctl", "--address=unix:path=" + daemon.launchSocket(), "call", "com.orvel.Kelvane",
                "/com/orvel/launch", "com.orvel.Launch", "RunActivity", "s", name});
  };
  EXPECT_EQ(launch("com.orvel.Kelvane.daily").status, 0);
  const Finished unknown = launch("com.orvel.Kelvane.weekly");
  EXPECT_NE(unknown.status, 0);
  EXPECT_NE(unknown.output.find("com.orvel.Kelvane.weekly"), std::string::npos) << unknown.output;
}

}  // namespace
}  // namespace kelvane::tests
