#include "kelvane/purge_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/keys.h"

namespace kelvane::tests {
namespace {

using client::PurgeReport;
using client::readPurgeReport;
using testing::ElementsAre;
using testing::Pair;

const char* const line = "amount reported: 30, amountPurged: 25, purge_amount_needed: 100, cancel: FALSE";

TEST(PurgeReport, TellsWhatEachServiceGaveInEachPass) {
  const Dictionary first{{KELVANE_REPORTING_SERVICES, Dictionary{{"a", 10}, {"b", 15}}},
                         {"KELVANE_OPERATION_STATS_URGENCY_1", line}};
  const Dictionary second{{KELVANE_SERVICES_INFLIGHT, Array{"b"}}, {"KELVANE_URGENCY_2_TIMEOUT_SECONDS", 4}};
  const PurgeReport report = readPurgeReport({{"KELVANE_URGENCY_1_OPERATION_INFO", first},
                                              {"KELVANE_URGENCY_2_OPERATION_INFO", second},
                                              {KELVANE_AMOUNT, 25},
                                              {KELVANE_AMOUNT_REPORTED, 30},
                                              {KELVANE_FREESPACE_BEGIN, 1000},
                                              {KELVANE_FREESPACE_END, 1025},
                                              {KELVANE_ELAPSED_TIME, 4.5},
                                              {KELVANE_OPERATION_CANCELLED, true}});
  EXPECT_EQ(report.freed, 25U);
  EXPECT_EQ(report.reported, 30U);
  EXPECT_EQ(report.free_before, 1000U);
  EXPECT_EQ(report.free_after, 1025U);
  EXPECT_EQ(report.seconds, 4.5);
  EXPECT_TRUE(report.cancelled);
  ASSERT_EQ(report.passes.size(), 2U);
  EXPECT_THAT(report.passes[0].freed, ElementsAre(Pair("a", 10U), Pair("b", 15U)));
  EXPECT_EQ(report.passes[0].freed_before_end, 25U);
  EXPECT_FALSE(report.passes[0].timeout_seconds);
  EXPECT_EQ(report.passes[1].urgency, 2);
  EXPECT_THAT(report.passes[1].unanswered, ElementsAre("b"));
  EXPECT_EQ(report.passes[1].timeout_seconds, 4U);
  EXPECT_FALSE(report.passes[1].freed_before_end);
}

TEST(PurgeReport, OfAMalformedAnswerHoldsWhatCanBeRead) {
  const Dictionary pass{{KELVANE_REPORTING_SERVICES, "none"},
                        {KELVANE_SERVICES_INFLIGHT, Array{1, "b"}},
                        {"KELVANE_OPERATION_STATS_URGENCY_3", "amountPurged: many"}};
  const PurgeReport report =
      readPurgeReport({{KELVANE_AMOUNT, "much"}, {"KELVANE_URGENCY_3_OPERATION_INFO", pass}});
  EXPECT_EQ(report.freed, 0U);
  ASSERT_EQ(report.passes.size(), 1U);
  EXPECT_EQ(report.passes[0].urgency, 3);
  EXPECT_TRUE(report.passes[0].freed.empty());
  EXPECT_THAT(report.passes[0].unanswered, ElementsAre("b"));
  EXPECT_FALSE(report.passes[0].freed_before_end);
}

}  // namespace
}  // namespace kelvane::tests
