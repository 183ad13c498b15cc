#include <gmock/gmock.h>

#include "common/keys.h"
#include "support/recent_info.h"
#include "tests/tools/screens.h"
#include "tools/purge.h"
#include "tools/purgeable.h"

namespace kelvane::tests {
namespace {

using testing::HasSubstr;
using testing::Not;
using tools::Purgeable;
using tools::Purged;

constexpr std::uint64_t mebibyte = 1 << 20;

Purgeable threeServices() {
  const Date now{1'000'000'000};
  const auto figure = [](std::uint64_t bytes, std::int64_t microseconds) {
    return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(bytes, Date{microseconds});
  };
  const RecentServices services{{"com.example.maps", figure(5 * mebibyte, 900'000'000)},
                                {"com.example.thumbnails", figure(512 * mebibyte, 999'900'000)}};
  const KelvaneRecentInfo record(
      {{"/var", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(services, 0, now, "/var")}});
  return tools::readPurgeable("/var",
                              {{"com.example.maps", 5 * mebibyte},
                               {"com.example.thumbnails", 512 * mebibyte},
                               {"odd\033[2J", "much"},
                               {KELVANE_TOTAL_AVAILABLE, 517 * mebibyte},
                               {KELVANE_VOLUME, "/var"}},
                              archivedData(record), now);
}

TEST(PurgeableScreen, ShowsTheGreatestFirstAt80Columns) {
  EXPECT_EQ(tools::purgeableScreen({threeServices()}, plain(80)),
            "/var\n"
            "Service                 Could free                                           Age\n"
            "com.example.thumbnails   512.0 MiB  ###############################          now\n"
            "com.example.maps           5.0 MiB  #..............................   1 min 40 s\n"
            "odd?[2J                  no number  ...............................            -\n"
            "Total                    517.0 MiB\n");
}

TEST(PurgeableScreen, TakesTwoLinesForEachServiceAt40Columns) {
  EXPECT_EQ(tools::purgeableScreen({threeServices()}, plain(40)),
            "/var\n"
            "com.example.thumbnails         512.0 MiB\n"
            "  #########################          now\n"
            "com.example.maps                 5.0 MiB\n"
            "  #........................   1 min 40 s\n"
            "odd?[2J                        no number\n"
            "  .........................            -\n"
            "Total                          517.0 MiB\n");
}

TEST(PurgeableScreen, FitsEveryWidth) {
  Purgeable purgeable = threeServices();
  purgeable.figures.front().service = std::string(300, 'x');
  for (unsigned width = 40; width <= 200; ++width) {
    expectFits(tools::purgeableScreen({purgeable}, plain(width)), plain(width));
    expectFits(tools::purgeableScreen({purgeable}, coloured(width)), coloured(width));
  }
}

TEST(PurgeableScreen, FitsAgesOfAnyLength) {
  Purgeable purgeable = threeServices();
  for (const double age : {99 * 3600.0 + 3599, 100 * 3600.0 + 3599, 1e9, 1e13, 1e300}) {
    purgeable.figures.front().age = age;
    for (const unsigned width : {40U, 80U})
      expectFits(tools::purgeableScreen({purgeable}, plain(width)), plain(width));
  }
  purgeable.figures.front().age = 123 * 3600.0 + 3599;
  EXPECT_THAT(tools::purgeableScreen({purgeable}, plain(80)), testing::HasSubstr("  123 h\n"));
}

TEST(PurgeableScreen, SaysSoWhenThereIsNothing) {
  EXPECT_EQ(tools::purgeableScreen({Purgeable{"/var", 0, {}}}, plain(80)),
            "/var\nNo service keeps anything here.\n");
  EXPECT_EQ(tools::purgeableScreen({}, plain(80)), "There is no local volume.\n");
}

TEST(ReadPurgeable, TakesAgesFromTheRecordWhereItHasThem) {
  const Purgeable purgeable = threeServices();
  ASSERT_EQ(purgeable.figures.size(), 3U);
  EXPECT_EQ(purgeable.total, static_cast<std::int64_t>(517 * mebibyte));
  EXPECT_EQ(purgeable.figures[0].service, "com.example.thumbnails");
  EXPECT_NEAR(purgeable.figures[0].age.value_or(-1), 0.1, 1e-9);
  EXPECT_NEAR(purgeable.figures[1].age.value_or(-1), 100, 1e-9);
  EXPECT_FALSE(purgeable.figures[2].bytes);
  EXPECT_FALSE(purgeable.figures[2].age);
}

TEST(ReadPurgeable, DoesWithoutARecord) {
  for (const Value& record : {Value(), Value("text"), Value(Data({1, 2, 3}))}) {
    const Purgeable purgeable = tools::readPurgeable("/var", {{"a", 7}}, record, Date{});
    ASSERT_EQ(purgeable.figures.size(), 1U);
    EXPECT_EQ(purgeable.figures[0].bytes, 7);
    EXPECT_FALSE(purgeable.figures[0].age);
  }
}

Purged purged() {
  Purged it{"/var", 36 * mebibyte, {}, false};
  it.report.freed = 30 * mebibyte;
  it.report.free_before = 10 * mebibyte;
  it.report.free_after = 39 * mebibyte;
  it.report.seconds = 2.25;
  it.report.passes = {
      {1,
       {{"com.example.maps", 12 * mebibyte}, {"com.example.thumbnails", 13 * mebibyte}},
       {},
       {},
       25 * mebibyte},
      {2, {{"com.example.maps", 5 * mebibyte}}, {"com.example.thumbnails"}, 4, 30 * mebibyte}};
  return it;
}

TEST(PurgeScreen, ShowsEachPassAndWhatWasClaimedBesideWhatWasMeasured) {
  EXPECT_EQ(tools::purgeScreen(purged(), plain(80)),
            "/var\n"
            "Pass 1: 36.0 MiB missing, 25.0 MiB freed; last answers:\n"
            "  com.example.maps          12.0 MiB  ##############............................\n"
            "  com.example.thumbnails    13.0 MiB  ###############...........................\n"
            "Pass 2: 11.0 MiB missing, 5.0 MiB freed; last answers:\n"
            "  com.example.maps           5.0 MiB  ###################.......................\n"
            "  com.example.thumbnails   no answer  in 4 s\n"
            "\n"
            "Asked       36.0 MiB\n"
            "Claimed     30.0 MiB  ################################################..........\n"
            "Measured    29.0 MiB  ###############################################...........\n"
            "Took           2.2 s\n"
            "Free now    39.0 MiB\n"
            "\n"
            "6.0 MiB less than asked were freed.\n");
}

TEST(PurgeScreen, At40ColumnsHasNoBarsForServices) {
  EXPECT_EQ(tools::purgeScreen(purged(), plain(40)),
            "/var\n"
            "Pass 1: 36.0 MiB missing,\n"
            "        25.0 MiB freed; last answers:\n"
            "  com.example.maps          12.0 MiB\n"
            "  com.example.thumbnails    13.0 MiB\n"
            "Pass 2: 11.0 MiB missing,\n"
            "        5.0 MiB freed; last answers:\n"
            "  com.example.maps           5.0 MiB\n"
            "  com.example.thumbnails   no answer\n"
            "\n"
            "Asked       36.0 MiB\n"
            "Claimed     30.0 MiB  ###############...\n"
            "Measured    29.0 MiB  ###############...\n"
            "Took           2.2 s\n"
            "Free now    39.0 MiB\n"
            "\n"
            "6.0 MiB less than asked were freed.\n");
}

TEST(PurgeScreen, FitsEveryWidth) {
  Purged it = purged();
  it.report.passes[0].freed[std::string(300, 'x')] = mebibyte;
  it.report.freed = it.asked = 1023 * mebibyte * 1024;
  for (unsigned width = 40; width <= 200; ++width) {
    expectFits(tools::purgeScreen(it, plain(width)), plain(width));
    expectFits(tools::purgeScreen(it, coloured(width)), coloured(width));
  }
}

TEST(PurgeScreen, LeavesOutThePassesInWhichNothingWasMissingButTheFirst) {
  Purged it = purged();
  it.asked = 25 * mebibyte;
  it.report.passes.push_back({3, {}, {}, {}, 30 * mebibyte});
  const std::string shown = tools::purgeScreen(it, plain(80));
  EXPECT_THAT(shown, HasSubstr("Pass 2: nothing was missing any more"));
  EXPECT_THAT(shown, Not(HasSubstr("Pass 3")));
  EXPECT_THAT(shown, HasSubstr("All that was asked for was freed."));
}

TEST(PurgeScreen, SaysWhatWasFreedUntilItWasCancelled) {
  Purged it = purged();
  it.cancelled = true;
  EXPECT_THAT(tools::purgeScreen(it, plain(80)), HasSubstr("Cancelled; 30.0 MiB were freed until then."));
}

TEST(PurgeScreen, ShowsAVolumeThatLostSpaceMeanwhile) {
  Purged it = purged();
  it.report.free_after = 9 * mebibyte;
  EXPECT_THAT(tools::purgeScreen(it, plain(80)), HasSubstr("Measured    -1.0 MiB  ...."));
}

TEST(ProgressLine, IsNeverAsWideAsTheScreen) {
  for (unsigned width = 40; width <= 200; ++width) {
    for (const std::int64_t gained : {std::int64_t{-5}, std::int64_t{0}, std::int64_t{1} << 60}) {
      const std::string line =
          tools::progressLine("/a/rather/long/volume/name", gained, 1023 * mebibyte, 5000, coloured(width));
      EXPECT_LT(tools::columns(withoutColours(line)), width) << line;
    }
  }
  EXPECT_EQ(tools::progressLine("/var", 9 << 20, 36 * mebibyte, 2.5, plain(60)),
            "/var #######.................... 9.0 MiB of 36.0 MiB, 2.5 s");
}

}  // namespace
}  // namespace kelvane::tests
