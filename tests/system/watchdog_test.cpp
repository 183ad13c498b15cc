// The daemon's signs of life, as a service manager hears them that starts it anew when they stay away.

#include <gtest/gtest.h>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

constexpr std::chrono::milliseconds patience(1500);  // the daemon speaks three times in it
constexpr std::chrono::seconds long_patience(20);    // for a busy machine

using Message = std::optional<std::string>;

/// Drops what the daemon has said already.
void forgetWhatWasSaid(Daemon& daemon) {
  while (daemon.nextNotification(std::chrono::milliseconds(0))) continue;
}

TEST(WatchdogMessages, StopWhileAServiceDoesNotAnswerItsPingAndComeAgainWhenItIsGone) {
  const Volume volume(1);
  Daemon daemon(built("kelvaned"),
                {"WATCHDOG_USEC=" + std::to_string(std::chrono::microseconds(patience).count())});
  ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
  for (int i = 0; i < 3; ++i) ASSERT_EQ(daemon.nextNotification(long_patience), Message("WATCHDOG=1"));

  Process service({built("service_program"), "mute", "com.example.mute", volume.fill("mute", 1, 4096),
                   "--daemon", daemon.socket()});
  ASSERT_TRUE(service.printed("pinged"));
  forgetWhatWasSaid(daemon);
  EXPECT_EQ(daemon.nextNotification(patience), std::nullopt);

  service.signal(SIGKILL);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(daemon.nextNotification(long_patience), Message("WATCHDOG=1"));
}

TEST(WatchdogMessages, GoOnWhileAServiceThatAnsweredItsPingDoesNotAnswerAPurge) {
  const Volume volume(8);
  Daemon daemon(built("kelvaned"),
                {"WATCHDOG_USEC=" + std::to_string(std::chrono::microseconds(patience).count())});
  Process service({built("service_program"), "silent", "com.example.silent", volume.fill("silent", 1, 4096),
                   "--daemon", daemon.socket()});
  ASSERT_TRUE(service.printed("registered"));
  Client client(daemon);
  client.startPurge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 4096}, {KELVANE_PURGE_TIMEOUT, 300}});
  ASSERT_TRUE(service.printed("asked 1 4096"));
  forgetWhatWasSaid(daemon);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(daemon.nextNotification(long_patience), Message("WATCHDOG=1"));
  service.signal(SIGKILL);
  EXPECT_TRUE(client.finishPurge());
}

}  // namespace
}  // namespace kelvane::tests
