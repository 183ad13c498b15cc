// The real program against a real daemon, on a real volume, and with nobody there.

#include <algorithm>
#include <filesystem>

#include "tests/system/services.h"
#include "tests/tools/program.h"
#include "tests/tools/screens.h"
#include "tools/amount.h"
#include "tools/json.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t mebibyte = 1 << 20;

TEST(Kelvanectl, ShowsPurgesAndMeasuresOnARealVolume) {
  const Volume volume(64);
  Daemon daemon;
  const auto first = startService(daemon, "deletes", "com.example.first", volume.fill("first", 24, mebibyte));
  const auto second =
      startService(daemon, "deletes", "com.example.second", volume.fill("second", 8, mebibyte));

  const Finished status = ctl(daemon, {"status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_THAT(status.output, AllOf(HasSubstr("reachable at " + daemon.socket().substr(0, 10)),
                                   HasSubstr(", idle"), HasSubstr("32.0 MiB    64.0 MiB  ok")));

  const Finished purgeable = ctl(daemon, {"purgeable", volume.path() + "/first/3"});
  EXPECT_EQ(purgeable.status, 0);
  EXPECT_THAT(purgeable.output,
              AllOf(HasSubstr(volume.path() + "\n"), HasSubstr("com.example.first"),
                    HasSubstr("  24.0 MiB  "), HasSubstr("  now\n"), HasSubstr("  32.0 MiB\n")));
  EXPECT_LT(purgeable.output.find("com.example.first"), purgeable.output.find("com.example.second"));

  const std::uint64_t before = volume.freeSpace();
  const Finished purge = ctl(daemon, {"purge", volume.path() + "/second", "12M"});
  EXPECT_EQ(purge.status, 0) << purge.output;
  const std::uint64_t gained = volume.freeSpace() - before;
  EXPECT_GE(gained, 12 * mebibyte);  // more when a service is asked again before all have answered
  EXPECT_THAT(purge.output, AllOf(HasSubstr("Asked       12.0 MiB\n"),
                                  HasSubstr("Claimed     " + tools::inUnits(gained) + "  "),
                                  HasSubstr("Measured    " + tools::inUnits(gained) + "  "),
                                  HasSubstr("All that was asked for was freed.")));
  EXPECT_THAT(purge.output, Not(HasSubstr("\033"))) << "it is no terminal";

  const Finished short_of = ctl(daemon, {"purge", volume.path(), "1G"});
  EXPECT_EQ(short_of.status, 1) << short_of.output;
  EXPECT_THAT(short_of.output, HasSubstr("less than asked were freed."));
}

TEST(Kelvanectl, SpeaksJsonThatMatchesItsSchema) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const std::vector<std::pair<std::vector<std::string>, int>> commands = {
      {{"--json", "status"}, 0},
      {{"purgeable", "--json", volume.path()}, 0},
      {{"--json", "purge", volume.path(), "2M"}, 0},
      {{"--json", "purge", volume.path(), "2G", "--urgency", "1"}, 1},
  };
  for (const auto& [arguments, code] : commands) {
    const Finished finished = ctl(daemon, arguments);
    EXPECT_EQ(finished.status, code) << finished.output;
    expectMatchesSchema(finished.output);
  }
}

TEST(Kelvanectl, SaysInJsonWhatWasMeasured) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto purged = tools::readJson(ctl(daemon, {"--json", "purge", volume.path(), "1M"}).output);
  ASSERT_TRUE(purged.valid);
  EXPECT_EQ((*purged.value.dictionary())["measured_bytes"], Value(mebibyte));
}

TEST(Kelvanectl, ShowsTheDaemonsOwnThresholds) {
  const Volume volume(32);
  Daemon daemon(built("kelvaned"), {"KELVANE_VERY_LOW_SPACE=0%"});
  const auto status = tools::readJson(ctl(daemon, {"--json", "status"}).output);
  ASSERT_TRUE(status.valid);
  EXPECT_EQ((*status.value.dictionary())["thresholds_of"], Value("daemon"));
  for (const Value& entry : *(*status.value.dictionary())["volumes"].array())
    EXPECT_EQ((*entry.dictionary())["low_below_bytes"], Value(0)) << "the daemon was told 0%";
}

TEST(Kelvanectl, ShowsProgressOnATerminalOfAnyWidthWithAndWithoutColours) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  for (const unsigned width : {40U, 80U}) {
    for (const char* const no_color : {"", "1"}) {
      OnTerminal purge(daemon, {"purge", volume.path(), "64M", "--pass-seconds", "1", "--urgency", "1"},
                       width, no_color);
      EXPECT_TRUE(purge.printed("of 64.0 MiB,")) << purge.all();
      EXPECT_EQ(purge.finish(), 1);
      EXPECT_THAT(purge.all(), AllOf(HasSubstr("\r\033[K"), HasSubstr("no answer")));
      EXPECT_EQ(purge.all().find("\033[33m") != std::string::npos, *no_color == '\0') << purge.all();
      const std::string result = purge.all().substr(purge.all().rfind("\033[K") + 3);
      std::string lines;
      for (const char c : result) lines += c == '\r' ? "" : std::string(1, c);
      expectFits(lines, coloured(width));
    }
  }
}

TEST(Kelvanectl, CancelsThePurgeOnCtrlCAndSaysWhatWasFreed) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "2", "--urgency", "1"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  purge.type("\x03");
  EXPECT_EQ(purge.finish(), 130);
  EXPECT_THAT(purge.all(), HasSubstr("Cancelled; 8.0 MiB were freed until then."));
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST(Kelvanectl, DoesNotWaitLongForAPurgeThatCannotBeCancelled) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "300"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  purge.type("\x03");
  EXPECT_EQ(purge.finish(), 130);
  EXPECT_THAT(purge.all(), HasSubstr("asked to cancel the purge and has not ended it yet; the volume has "
                                     "gained 8.0 MiB since it began"));
}

TEST(Kelvanectl, SaysWhenTheDaemonStopsMidway) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "300"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  daemon.process().signal(SIGKILL);
  EXPECT_EQ(purge.finish(), 5);
  EXPECT_THAT(purge.all(), HasSubstr("the volume has gained 8.0 MiB since the purge began"));
}

TEST(Kelvanectl, SaysInOneLineThatADaemonIsSilent) {
  Daemon daemon;
  daemon.process().signal(SIGSTOP);
  const Finished status = ctl(daemon, {"status"});
  daemon.process().signal(SIGCONT);
  EXPECT_EQ(status.status, 5);
  EXPECT_THAT(status.output,
              HasSubstr("kelvanectl: the daemon does not answer; `journalctl -u kelvane` may say why"));
}

TEST(Kelvanectl, KeepsReadsAndRemovesState) {
  Daemon daemon;
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).output, "null\n");
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).status, 1);
  EXPECT_EQ(ctl(daemon, {"state", "set", "colour", "[\"green\", -1]"}).status, 0);
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).output, "[\n  \"green\",\n  -1\n]\n");
  EXPECT_EQ(ctl(daemon, {"state", "delete", "colour"}).status, 0);
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).status, 1);
  const Finished wrong = ctl(daemon, {"state", "set", "colour", "green"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "kelvanectl: \"green\" is no JSON; a text is quoted, as in '\"text\"'\n");
}

TEST(Kelvanectl, ShowsWhatTheDaemonCounted) {
  const Folder folder;
  EXPECT_EQ(ctl({"--daemon", folder.path() + "/kelvane.sock", "stats"}).status, 6);
  writeFile(folder.path() + "/metrics.prom",
            "kelvane_reports_total{domain=\"d\",key=\"KelvanePurgeFailed\"} 3\n");
  const Finished stats = ctl({"--daemon", folder.path() + "/kelvane.sock", "stats"});
  EXPECT_EQ(stats.status, 0);
  EXPECT_THAT(stats.output, testing::ContainsRegex("KelvanePurgeFailed +3\n"));
  expectMatchesSchema(ctl({"--daemon", folder.path() + "/kelvane.sock", "--json", "stats"}).output);
}

TEST(Kelvanectl, RunsActivitiesAndPostsEvents) {
  Daemon daemon;
  EXPECT_EQ(ctl(daemon, {"activity", "run", "com.orvel.Kelvane.daily"}).status, 0);
  const Finished posted = ctl(daemon, {"events", "post", "com.orvel.dispatch.vfs", "{\"_Flags\": 4}"});
  EXPECT_EQ(posted.status, 0) << posted.output;
  EXPECT_TRUE(daemon.logged("handleVFSStreamXPCEvent:"));
  const Finished unknown = ctl(daemon, {"activity", "run", "nothing"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output, "kelvanectl: the daemon says: no activity is registered as \"nothing\"\n");
  EXPECT_EQ(ctl(daemon, {"events", "post", "com.orvel.dispatch.vfs", "[1]"}).status, 2);
  EXPECT_EQ(ctl({"--daemon", "/nowhere/kelvane.sock", "activity", "run", "any"}).status, 4);
}

TEST(Kelvanectl, ChecksFilesAndShowsDeclaredServices) {
  const Folder folder;
  writeFile(folder.path() + "/a.plist", propertyList("<key>KELVANE_ID</key><integer>1</integer>"));
  const Finished faulty = ctl({"check", folder.path() + "/a.plist"});
  EXPECT_EQ(faulty.status, 1);
  EXPECT_EQ(faulty.output, folder.path() + "/a.plist:2: KELVANE_ID is not a string\n");
  writeFile(folder.path() + "/b.plist",
            propertyList("<key>KELVANE_ID</key><string>com.example.maps</string>\n<key>COLOUR</key><true/>"));
  const Finished unknown = ctl({"check", folder.path() + "/b.plist"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.output, folder.path() + "/b.plist:3: \"COLOUR\" is no key that is known\n");
  writeFile(folder.path() + "/c.plist", "<plist>\n<dict>\n</plist>\n");
  const Finished broken = ctl({"check", folder.path() + "/c.plist"});
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(broken.output, folder.path() + "/c.plist:3: it is no well-formed XML: mismatched tag\n");
  writeFile(std::string(system_descriptors) + "/maps.plist",
            propertyList("<key>KELVANE_ID</key><string>com.example.maps</string>"));
  const Finished services = ctl({"services"});
  EXPECT_EQ(services.status, 0);
  EXPECT_THAT(services.output, HasSubstr("com.example.maps\n  /System/Library/Kelvane/maps.plist\n"));
  expectMatchesSchema(ctl({"--json", "services"}).output);
  expectMatchesSchema(ctl({"--json", "check", folder.path() + "/a.plist"}).output);
  std::filesystem::remove(std::string(system_descriptors) + "/maps.plist");
}

}  // namespace
}  // namespace kelvane::tests
