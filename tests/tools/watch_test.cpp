#include "tools/watch.h"

#include <gmock/gmock.h>

#include "tests/tools/screens.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tools::Look;
using tools::Purges;
using tools::watchScreen;

constexpr std::uint64_t gibibyte = 1 << 30;
constexpr std::int64_t mebibyte = 1 << 20;

Look earlier() {
  Look look;
  look.time = "2026-05-04T10:20:30Z";
  look.status.socket = "/run/kelvane/kelvane.sock";
  look.status.transactions = 0;
  look.status.thresholds_are_the_daemons = true;
  look.status.volumes = {
      {"/", VolumeSpace{40 * gibibyte, 50 * gibibyte, 900, 1000}, SpaceLevel::plenty},
      {"/srv/photographs of a long life", VolumeSpace{gibibyte, 200 * gibibyte, 900, 1000}, SpaceLevel::low}};
  look.purges = Purges{2, 1, {100 * mebibyte}, {{"com.example.maps", {90 * mebibyte}}}};
  return look;
}

/// A second later: a purge has freed half a gibibyte, and another is under way.
Look later() {
  Look look = earlier();
  look.time = "2026-05-04T10:20:31Z";
  look.status.transactions = 1;
  look.status.volumes[0].space->bytes_free -= gibibyte;
  look.status.volumes[1].space->bytes_free += gibibyte / 2;
  look.purges = Purges{3,
                       1,
                       {612 * mebibyte},
                       {{"com.example.maps", {90 * mebibyte}}, {"com.example.thumbnails", {512 * mebibyte}}}};
  noteChanges(look, earlier());
  return look;
}

TEST(WatchScreen, ShowsVolumesPurgesAndWhatChangedAt80Columns) {
  EXPECT_EQ(watchScreen(later(), "every 1 s; q quits", plain(80)),
            "2026-05-04T10:20:31Z                                          every 1 s; q quits\n"
            "Daemon     reachable at /run/kelvane/kelvane.sock, busy (1 transaction)\n"
            "\n"
            "Volume                Used               Free        Size       Change  State\n"
            "/                     ##........|    39.0 GiB    50.0 GiB     -1.0 GiB  ok\n"
            "/srv/photographs of~  ##########|     1.5 GiB   200.0 GiB   +512.0 MiB  low\n"
            "\n"
            "Purges                                                         Freed      Change\n"
            "3 since the daemon's start, 1 fell short                   612.0 MiB  +512.0 MiB\n"
            "  com.example.thumbnails                                   512.0 MiB  +512.0 MiB\n"
            "  com.example.maps                                          90.0 MiB            \n");
}

TEST(WatchScreen, TakesTwoLinesForEachVolumeAt40Columns) {
  EXPECT_EQ(watchScreen(later(), "every 1 s; q quits", plain(40)),
            "2026-05-04T10:20:31Z  every 1 s; q quits\n"
            "Daemon     reachable, busy (1)\n"
            "           /run/kelvane/kelvane.sock\n"
            "\n"
            "/                            -1.0 GiB ok\n"
            "  ###.........|     39.0 GiB of 50.0 GiB\n"
            "/srv/photographs of a l~  +512.0 MiB low\n"
            "  ############|     1.5 GiB of 200.0 GiB\n"
            "\n"
            "Purges                 Freed      Change\n"
            "3, 1 short         612.0 MiB  +512.0 MiB\n"
            "  com.example.thumbnails\n"
            "                   512.0 MiB  +512.0 MiB\n"
            "  com.example.maps\n"
            "                    90.0 MiB            \n");
}

TEST(WatchScreen, KeepsTheHintAwayFromTheTime) {
  EXPECT_THAT(watchScreen(later(), "every 0.1 s; q quits", plain(40)),
              StartsWith("2026-05-04T10:20:31Z every 0.1 s; q qui~\n"));
}

TEST(WatchScreen, ColoursWhatWasGainedAndLostAndNothingWithoutColours) {
  for (const unsigned width : {40U, 80U}) {
    const std::string shown = watchScreen(later(), "", coloured(width));
    EXPECT_THAT(shown, AllOf(HasSubstr("\033[32m +512.0 MiB\033[0m"), HasSubstr("-1.0 GiB\033[0m")));
    EXPECT_THAT(watchScreen(later(), "", plain(width)), Not(HasSubstr("\033")));
  }
}

TEST(WatchScreen, FitsEveryWidth) {
  Look look = later();
  look.purges->count = 1'000'000'000;
  look.purges->services[std::string(300, 'x') + "\033[2J"] = {std::int64_t{1} << 60, std::int64_t{-1} << 60};
  for (unsigned width = 40; width <= 200; ++width) {
    expectFits(watchScreen(look, "every 1 s; q quits", plain(width)), plain(width));
    expectFits(watchScreen(look, "every 1 s; q quits", coloured(width)), coloured(width));
  }
}

TEST(WatchScreen, ShowsTheVolumesWhileTheDaemonIsAway) {
  Look look = earlier();
  look.status.unreachable = client::Error{client::Failure::noDaemon, "nobody listens on the daemon's socket"};
  look.purges.reset();
  const std::string shown = watchScreen(look, "", plain(80));
  EXPECT_THAT(shown, AllOf(HasSubstr("not reachable"), HasSubstr("40.0 GiB"), Not(HasSubstr("Purges"))));
}

TEST(WatchScreen, SaysWhenTheCountersCannotBeRead) {
  Look look = earlier();
  look.purges.reset();
  EXPECT_THAT(watchScreen(look, "", plain(40)), HasSubstr("The daemon's counters cannot be read.\n"));
}

TEST(Changes, AreAllThatANewDaemonCounted) {
  Look look = earlier();
  look.purges = Purges{1, 0, {5 * mebibyte}, {{"com.example.maps", {5 * mebibyte}}}};
  noteChanges(look, earlier());
  EXPECT_EQ(look.purges->total.change, 5 * mebibyte);
  EXPECT_EQ(look.purges->services["com.example.maps"].change, 5 * mebibyte);
}

TEST(Changes, AreUnknownWhereThereWasNothingToCompareWith) {
  Look before = earlier();
  before.purges.reset();
  before.status.volumes.erase(before.status.volumes.begin());
  before.status.volumes[0].space.reset();
  Look look = earlier();
  noteChanges(look, before);
  EXPECT_EQ(look.purges->total.change, std::nullopt);
  EXPECT_EQ(look.status.volumes[0].change, std::nullopt);
  EXPECT_EQ(look.status.volumes[1].change, std::nullopt);
}

TEST(PurgesInStatistics, AreCountedWithWhatEachServiceFreed) {
  tools::Stats stats;
  stats.distributions["KelvanePurgeAmountPurged"].count = 4;
  stats.counters = {{"KelvanePurgeFailed", 3},
                    {"total.purged", 30},
                    {"total.purged.100.percent", 1},
                    {"com.example.maps.purged", 10},
                    {"com.example.maps.purged.0.percent", 2}};
  const Purges purges = purgesIn(stats);
  EXPECT_EQ(purges.count, 4U);
  EXPECT_EQ(purges.fell_short, 3U);
  EXPECT_EQ(purges.total.bytes, 30);
  ASSERT_EQ(purges.services.size(), 1U);
  EXPECT_EQ(purges.services.at("com.example.maps").bytes, 10);
}

TEST(WatchValue, HoldsWhatTheScreenShows) {
  const Dictionary value = *watchValue(later()).dictionary();
  EXPECT_EQ(value["command"], Value("watch"));
  EXPECT_EQ((*(*value["volumes"].array())[0].dictionary())["change_bytes"],
            Value(-static_cast<std::int64_t>(gibibyte)));
  EXPECT_EQ((*value["purges"].dictionary())["change_bytes"], Value(512 * mebibyte));
  const Dictionary first = *watchValue(earlier()).dictionary();
  EXPECT_FALSE((*first["purges"].dictionary()).contains("change_bytes")) << "there was no look before";
}

TEST(FirstLines, AreCutAtTheScreensHeight) {
  EXPECT_EQ(tools::firstLines("a\nb\nc\n", 2), "a\nb\n");
  EXPECT_EQ(tools::firstLines("a\nb\n", 5), "a\nb\n");
  EXPECT_EQ(tools::firstLines("a", 1), "a");
  EXPECT_EQ(tools::firstLines("", 1), "");
}

}  // namespace
}  // namespace kelvane::tests
