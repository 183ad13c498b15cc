#include "tools/stats.h"

#include <gmock/gmock.h>

#include "support/statistics.h"
#include "tests/tools/screens.h"

namespace kelvane::tests {
namespace {

std::string written() {
  Statistics statistics;
  statistics.counters = {{"KelvanePurgeFailed", 3}, {"odd \"\\\n key", -2}};
  statistics.distributions["elapsed"] = {4, 10, 1, 5.5};
  return openMetricsText({{"com.orvel.kelvane", statistics}});
}

TEST(Stats, AreReadAsTheDaemonWritesThem) {
  const tools::Stats stats = tools::readStats(written());
  EXPECT_THAT(stats.counters, testing::ElementsAre(testing::Pair("KelvanePurgeFailed", 3),
                                                   testing::Pair("odd \"\\\n key", -2)));
  ASSERT_EQ(stats.distributions.size(), 1U);
  const tools::Samples& elapsed = stats.distributions.at("elapsed");
  EXPECT_EQ(elapsed.count, 4);
  EXPECT_EQ(elapsed.sum, 10);
  EXPECT_EQ(elapsed.least, 1);
  EXPECT_EQ(elapsed.most, 5.5);
}

TEST(Stats, PassOverLinesOfAnotherForm) {
  for (const char* line :
       {"", "x", "a{domain=\"", "a{domain=\"b\"} 1", "kelvane_reports_total{domain=\"b\",key=\"c",
        "kelvane_reports_total{domain=\"b\",key=\"c\"} much"}) {
    const tools::Stats stats = tools::readStats(line);
    EXPECT_TRUE(stats.counters.empty() && stats.distributions.empty()) << line;
  }
}

TEST(StatsScreen, FitsEveryWidth) {
  tools::Stats stats = tools::readStats(written());
  stats.counters[std::string(300, 'x')] = 1e11;
  stats.distributions[std::string(300, 'x')] = {1, 1e300, -1e300, 1e300};
  for (unsigned width = 40; width <= 200; ++width)
    expectFits(tools::statsScreen(stats, coloured(width)), coloured(width));
  EXPECT_EQ(tools::statsScreen(tools::readStats(written()), plain(40)),
            "Counters\n"
            "KelvanePurgeFailed                     3\n"
            "odd \"\\? key                           -2\n"
            "\n"
            "Distributions: least, mean, most\n"
            "elapsed\n"
            "             1         2.5         5.5\n");
}

TEST(StatsScreen, FitsFiguresOfAnySize) {
  tools::Stats stats;
  for (const double count : {2.5e300, -2.5e300, 1e12, -1e12, 123456789012.0}) {
    stats.counters["count"] = count;
    stats.distributions["samples"] = {1, -1.23456e-300, -1.23456e+300, -1.23456e-300};
    expectFits(tools::statsScreen(stats, plain(40)), plain(40));
  }
}

}  // namespace
}  // namespace kelvane::tests
