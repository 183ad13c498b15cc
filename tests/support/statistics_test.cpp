#include "support/statistics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <thread>

#include "common/keys.h"
#include "platform/dispatch/manual_clock.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/directory_events.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t one_second = 1'000'000'000;

class Statistics : public testing::Test {
 protected:
  void TearDown() override { forgetStatistics(); }
};

TEST_F(Statistics, ACounterAddsUpWhatIsReported) {
  addReportStat("add", "KV_LOWDISK_EVENT", 1);
  addReportStat("add", "KV_LOWDISK_EVENT", 2);
  addReportStat("add", "KV_VFS_QUOTA_EVENT", 5);
  const kelvane::Statistics statistics = statisticsOf("add");
  EXPECT_EQ(statistics.counters,
            (std::map<std::string, std::int64_t>{{"KV_LOWDISK_EVENT", 3}, {"KV_VFS_QUOTA_EVENT", 5}}));
}

TEST_F(Statistics, AnEventWithoutAKeyIsCountedNowhere) {
  addReportStat("no key", nullptr, 1);
  EXPECT_TRUE(statisticsOf("no key").counters.empty());
  addReportStat(nullptr, "key", 1);
}

TEST_F(Statistics, ACounterStopsAtTheEndOfItsRange) {
  addReportStat("end", "up", std::numeric_limits<std::int64_t>::max());
  addReportStat("end", "up", 1);
  addReportStat("end", "down", std::numeric_limits<std::int64_t>::min());
  addReportStat("end", "down", -1);
  EXPECT_EQ(statisticsOf("end").counters["up"], std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(statisticsOf("end").counters["down"], std::numeric_limits<std::int64_t>::min());
}

TEST_F(Statistics, ADistributionKeepsCountSumLeastAndMost) {
  for (const double sample : {4.0, -2.0, 10.0})
    addDistributionStat("distribution", sample, "KelvanePurgeDeficit");
  const Distribution it = statisticsOf("distribution").distributions["KelvanePurgeDeficit"];
  EXPECT_EQ(it.count, 3U);
  EXPECT_EQ(it.sum, 12.0);
  EXPECT_EQ(it.least, -2.0);
  EXPECT_EQ(it.most, 10.0);
}

TEST_F(Statistics, DomainsAreKeptApart) {
  addReportStat("domain one", "key", 1);
  EXPECT_TRUE(statisticsOf("domain two").counters.empty());
}

TEST_F(Statistics, AreRecordedOnAnyThread) {
  const auto record = [] {
    for (int i = 0; i < 1000; ++i) addReportStat("threads", "key", 1);
  };
  std::thread other(record);
  record();
  other.join();
  EXPECT_EQ(statisticsOf("threads").counters["key"], 2000);
}

TEST_F(Statistics, NamesThatServicesInventDoNotFillTheMemory) {
  const LogCapture log;
  for (int i = 0; i < 10'010; ++i) addReportStat("flood", std::to_string(i).c_str(), 1);
  addReportStat("flood", "0", 1);
  EXPECT_EQ(statisticsOf("flood").counters.size(), 10'000U);
  EXPECT_EQ(statisticsOf("flood").counters["0"], 2);
  EXPECT_EQ(log.count(3, "too many statistics"), 1U);
}

TEST(OpenMetrics, HoldsCountersAndSummariesWithTheKeyAsALabel) {
  kelvane::Statistics statistics;
  statistics.counters["KV_LOWDISK_EVENT"] = 3;
  statistics.distributions["KelvanePurgeDeficit"] = {2, 10.5, 0.5, 10};
  EXPECT_EQ(openMetricsText({{kelvane_domain, statistics}}),
            "# TYPE kelvane_reports counter\n"
            "# HELP kelvane_reports What was reported, by key.\n"
            "kelvane_reports_total{domain=\"com.orvel.kelvane\",key=\"KV_LOWDISK_EVENT\"} 3\n"
            "# TYPE kelvane_samples summary\n"
            "# HELP kelvane_samples Distributions of samples, by key.\n"
            "kelvane_samples_count{domain=\"com.orvel.kelvane\",key=\"KelvanePurgeDeficit\"} 2\n"
            "kelvane_samples_sum{domain=\"com.orvel.kelvane\",key=\"KelvanePurgeDeficit\"} 10.5\n"
            "# TYPE kelvane_samples_least gauge\n"
            "# HELP kelvane_samples_least The least sample, by key.\n"
            "kelvane_samples_least{domain=\"com.orvel.kelvane\",key=\"KelvanePurgeDeficit\"} 0.5\n"
            "# TYPE kelvane_samples_most gauge\n"
            "# HELP kelvane_samples_most The greatest sample, by key.\n"
            "kelvane_samples_most{domain=\"com.orvel.kelvane\",key=\"KelvanePurgeDeficit\"} 10\n"
            "# EOF\n");
}

TEST(OpenMetrics, AKeyCannotForgeASample) {
  kelvane::Statistics statistics;
  statistics.counters["a\"} 1\nforged\\"] = 1;
  EXPECT_THAT(openMetricsText({{"d", statistics}}), HasSubstr("key=\"a\\\"} 1\\nforged\\\\\"} 1\n"));
}

TEST(OpenMetrics, WritesNumbersThatAreNone) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  kelvane::Statistics statistics;
  statistics.distributions["x"] = {1, std::nan(""), -infinity, infinity};
  const std::string text = openMetricsText({{"d", statistics}});
  EXPECT_THAT(text, HasSubstr("kelvane_samples_sum{domain=\"d\",key=\"x\"} NaN\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_samples_least{domain=\"d\",key=\"x\"} -Inf\n"));
  EXPECT_THAT(text, HasSubstr("kelvane_samples_most{domain=\"d\",key=\"x\"} +Inf\n"));
}

/// The statistics file in a directory whose changes are counted, on a clock that the test moves.
class StatisticsFile : public Statistics {
 protected:
  void TearDown() override {
    setStatisticsFile("");
    Statistics::TearDown();
  }

  /// Starts the writing and waits for the first file, which shows what earlier tests left.
  void start() {
    setStatisticsFile(path_);
    addReportStat("file", "started", 1);
    clock_.advanceToWaiterFor(one_second);
    EXPECT_EQ(writes_.await(), 1U);
  }
  std::string content() {
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }

  ManualClock clock_;
  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "metrics.prom";
  const DirectoryEvents writes_{directory_.path(), IN_MOVED_TO};
};

TEST_F(StatisticsFile, TwoChangesWithinOneSecondGiveOneWrite) {
  start();
  addReportStat("file", "one", 1);
  clock_.awaitWaiterFor(one_second);
  clock_.advance(one_second / 2);
  addReportStat("file", "two", 1);
  EXPECT_FALSE(writes_.pending());
  clock_.advance(one_second / 2);
  EXPECT_EQ(writes_.await(), 1U);
  EXPECT_THAT(content(), HasSubstr("key=\"one\"} 1\n"));
  EXPECT_THAT(content(), HasSubstr("key=\"two\"} 1\n"));

  // The next file is that of the next change: nothing was written in between.
  clock_.advance(10 * one_second);
  addReportStat("file", "three", 1);
  clock_.advanceToWaiterFor(one_second);
  EXPECT_EQ(writes_.await(), 1U);
  EXPECT_THAT(content(), HasSubstr("key=\"three\"} 1\n"));
}

TEST_F(StatisticsFile, IsReplacedWhole) {
  start();
  const std::ifstream before(path_);
  addReportStat("file", "whole", 1);
  clock_.advanceToWaiterFor(one_second);
  writes_.await();
  std::ostringstream old;
  old << before.rdbuf();
  EXPECT_THAT(old.str(), Not(HasSubstr("whole")));
  EXPECT_THAT(old.str(), testing::EndsWith("# EOF\n"));
  EXPECT_THAT(content(), HasSubstr("key=\"whole\"} 1\n"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
}

TEST_F(StatisticsFile, AFileThatCannotBeWrittenIsNamedOnce) {
  const LogCapture log(3);
  directory_.write("metrics.prom/in the way", "");
  const DirectoryEvents given_up(directory_.path(), IN_DELETE);
  setStatisticsFile(path_);
  for (int i = 0; i < 2; ++i) {
    addReportStat("file", "lost", 1);
    clock_.advanceToWaiterFor(one_second);
    EXPECT_EQ(given_up.await(), 1U);
  }
  log.await("unable to write " + path_);
  std::filesystem::remove_all(path_);
  start();
  EXPECT_EQ(log.count(3, "unable to write"), 1U);
  EXPECT_THAT(content(), HasSubstr("key=\"lost\"} 2\n"));
}

TEST_F(StatisticsFile, NothingIsWrittenOnceThePathIsTakenBack) {
  start();
  addReportStat("file", "stopped", 1);
  setStatisticsFile("");
  clock_.advance(10 * one_second);
  addReportStat("file", "stopped", 1);
  clock_.advance(10 * one_second);
  EXPECT_THAT(content(), Not(HasSubstr("stopped")));
  start();
  EXPECT_FALSE(writes_.pending());
}

}  // namespace
}  // namespace kelvane::tests
