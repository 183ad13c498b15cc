#include "tools/status.h"

#include <gmock/gmock.h>

#include "tests/tools/screens.h"
#include "tools/json.h"

namespace kelvane::tests {
namespace {

using testing::HasSubstr;
using testing::Not;
using tools::Status;
using tools::statusScreen;

constexpr std::uint64_t gibibyte = 1 << 30;

Status reachable() {
  Status status;
  status.socket = "/run/kelvane/kelvane.sock";
  status.transactions = 0;
  status.thresholds_are_the_daemons = true;
  status.volumes = {{"/", VolumeSpace{40 * gibibyte, 50 * gibibyte, 900, 1000}, SpaceLevel::plenty},
                    {"/srv/photographs of a long life",
                     VolumeSpace{gibibyte * 3 / 2, 200 * gibibyte, 900, 1000}, SpaceLevel::low},
                    {"/var", VolumeSpace{gibibyte / 4, 10 * gibibyte, 900, 1000}, SpaceLevel::very_low}};
  return status;
}

TEST(StatusScreen, ShowsVolumesWithBarsAndThresholdsAt80Columns) {
  EXPECT_EQ(statusScreen(reachable(), plain(80)),
            "Daemon     reachable at /run/kelvane/kelvane.sock, idle\n"
            "\n"
            "Volume                      Used                      Free        Size  State\n"
            "/                           ####.............|    40.0 GiB    50.0 GiB  ok\n"
            "/srv/photographs of a lon~  #################|     1.5 GiB   200.0 GiB  low\n"
            "/var                        ################||   256.0 MiB    10.0 GiB  very low\n");
}

TEST(StatusScreen, TakesTwoLinesForEachVolumeAt40Columns) {
  EXPECT_EQ(statusScreen(reachable(), plain(40)),
            "Daemon     reachable, idle\n"
            "           /run/kelvane/kelvane.sock\n"
            "\n"
            "/                                     ok\n"
            "  ###.........|     40.0 GiB of 50.0 GiB\n"
            "/srv/photographs of a long life      low\n"
            "  ############|     1.5 GiB of 200.0 GiB\n"
            "/var                            very low\n"
            "  ############|    256.0 MiB of 10.0 GiB\n");
}

TEST(StatusScreen, FitsEveryWidth) {
  Status status = reachable();
  status.transactions = 12;
  for (unsigned width = 40; width <= 200; ++width) {
    expectFits(statusScreen(status, plain(width)), plain(width));
    expectFits(statusScreen(status, coloured(width)), coloured(width));
  }
}

TEST(StatusScreen, ColoursTheStateAndNothingWithoutColours) {
  const std::string shown = statusScreen(reachable(), coloured(80));
  EXPECT_THAT(shown, HasSubstr("\033[32mok\033[0m"));
  EXPECT_THAT(shown, HasSubstr("\033[33mlow\033[0m"));
  EXPECT_THAT(shown, HasSubstr("\033[31mvery low\033[0m"));
  EXPECT_THAT(statusScreen(reachable(), plain(80)), Not(HasSubstr("\033")));
}

TEST(StatusScreen, SaysWhetherTheDaemonIsBusyWhereItMayBeAsked) {
  Status status = reachable();
  status.transactions = 1;
  EXPECT_THAT(statusScreen(status, plain(80)), HasSubstr("busy (1 transaction)"));
  status.transactions = 2;
  EXPECT_THAT(statusScreen(status, plain(80)), HasSubstr("busy (2 transactions)"));
  status.transactions.reset();
  EXPECT_THAT(statusScreen(status, plain(80)), Not(testing::AnyOf(HasSubstr("busy"), HasSubstr("idle"))));
}

TEST(StatusScreen, SaysWhyTheDaemonIsNotReachableAndShowsTheVolumesAllTheSame) {
  Status status = reachable();
  status.unreachable = client::Error{client::Failure::noDaemon, "nobody listens on the daemon's socket"};
  const std::string shown = statusScreen(status, plain(80));
  EXPECT_THAT(shown, HasSubstr("not reachable"));
  EXPECT_THAT(shown, HasSubstr("nobody listens on the daemon's socket"));
  EXPECT_THAT(shown, HasSubstr("/var "));
  expectFits(statusScreen(status, plain(40)), plain(40));
}

TEST(StatusScreen, SaysWhoseThresholdsItShowsWhenTheyAreNotTheDaemons) {
  Status status = reachable();
  EXPECT_THAT(statusScreen(status, plain(80)), Not(HasSubstr("may count others as low")));
  status.thresholds_are_the_daemons = false;
  EXPECT_THAT(statusScreen(status, plain(80)), HasSubstr("may count others as low"));
}

TEST(StatusScreen, ShowsAVolumeThatDoesNotAnswerAndOneThatDoesNotCount) {
  Status status = reachable();
  status.volumes = {{"/stuck", std::nullopt, SpaceLevel::plenty},
                    {"/odd", VolumeSpace{}, SpaceLevel::plenty}};
  for (const unsigned width : {40U, 80U}) {
    EXPECT_THAT(statusScreen(status, plain(width)), HasSubstr("does not answer"));
    EXPECT_THAT(statusScreen(status, plain(width)), HasSubstr("0 B"));
    expectFits(statusScreen(status, plain(width)), plain(width));
  }
}

TEST(StatusValue, HoldsWhatTheScreenShows) {
  const Dictionary value = *statusValue(reachable()).dictionary();
  const Dictionary daemon = *value["daemon"].dictionary();
  EXPECT_EQ(daemon["reachable"], Value(true));
  EXPECT_EQ(daemon["busy"], Value(false));
  const Dictionary low = *(*value["volumes"].array())[1].dictionary();
  EXPECT_EQ(low["level"], Value("low"));
  EXPECT_EQ(low["low_below_bytes"], Value(2 * gibibyte));
  EXPECT_EQ(low["very_low_below_bytes"], Value(gibibyte));
  const Dictionary small = *(*value["volumes"].array())[2].dictionary();
  EXPECT_EQ(small["low_below_bytes"], Value(gibibyte));
}

TEST(DaemonsThresholds, AreUnknownWhereNobodyListens) {
  EXPECT_FALSE(tools::daemonsThresholds("/nowhere/kelvane.sock"));
}

}  // namespace
}  // namespace kelvane::tests
