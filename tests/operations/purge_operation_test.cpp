#include "operations/purge_operation.h"

#include <gtest/gtest.h>
#include <limits>

#include "tests/operations/answer.h"
#include "tests/operations/purge_fixture.h"

namespace kelvane {
namespace {

using tests::FakeService;
using tests::upTo;

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

class PurgeOperation : public tests::PurgeFixture {};

// --- the shares ---

TEST_F(PurgeOperation, AmountZeroAsksNobodyAndStillRecordsEveryPass) {
  FakeService& idle = service("idle");
  const std::int64_t failed_before = counter("KelvanePurgeFailed");
  const Distribution deficit_before = distribution("KelvanePurgeDeficit");
  const Dictionary result = purge({{KELVANE_AMOUNT, 0}});
  EXPECT_EQ(idle.connectionsOpened(), 0);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
  for (int urgency = 1; urgency <= 3; ++urgency) {
    const std::string key = "KELVANE_OPERATION_STATS_URGENCY_" + std::to_string(urgency);
    EXPECT_EQ(passOf(result, urgency)[key],
              Value("amount reported: 0, amountPurged: 0, purge_amount_needed: 0, cancel: FALSE"));
    EXPECT_TRUE(log_.contains(5, "startOperation: " + key + " : amount reported: 0"));
    EXPECT_EQ(log_.count(5, "startOperation: waiting for " + std::to_string(2 * urgency) + " seconds, "), 1u);
  }
  EXPECT_EQ(counter("KelvanePurgeFailed"), failed_before);
  EXPECT_EQ(distribution("KelvanePurgeDeficit").count, deficit_before.count);
}

TEST_F(PurgeOperation, ThreeViableServicesAndTenBytesMissingAreAskedForThreeBytesEach) {
  std::vector<FakeService*> all{&service("a"), &service("b"), &service("c")};
  for (FakeService* each : all) each->purges([](std::uint64_t) { return 0; });
  purge({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}});
  for (FakeService* each : all) EXPECT_EQ(each->purgesAsked().at(0).asked(), 3u);
  EXPECT_TRUE(log_.contains(
      5, "donation (3) = (amount needed[10] - amount_purged[0]) / viable_purging_services[3])"));
}

TEST_F(PurgeOperation, ThreeSilentServicesAndTenBytesMissingAreAskedForThreeBytesEach) {
  std::vector<FakeService*> all{&service("a"), &service("b"), &service("c")};
  const auto it = operation({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}});
  std::thread runner([&] { run(*it); });
  for (FakeService* each : all) {
    each->awaitPurges(1);
    EXPECT_EQ(each->purgesAsked().at(0).asked(), 3u);
  }
  tests::awaitTimers(0);
  clock_.advanceToWaiterFor(2'000'000'000);
  runner.join();
}

TEST_F(PurgeOperation, WithTwoMissingBytesAndThreeViableServicesNobodyIsAsked) {
  for (const char* ID : {"a", "b", "c"}) service(ID);
  const Dictionary result = purge({{KELVANE_AMOUNT, 2}});
  for (const auto& each : services_) EXPECT_EQ(each->connectionsOpened(), 0);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
}

TEST_F(PurgeOperation,
       AServiceThatReturnsExactlyItsDonationIsAskedAgainInTheSamePassForAShareOfWhatIsMissing) {
  FakeService& full = service("full");
  FakeService& poor = service("poor");
  full.purges(upTo(largest));
  tests::Answer<FakeService::ResultReply> poor_asked;
  poor.onPurge([poor_asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    poor_asked.come(reply);
  });
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  std::thread runner([&] { run(*it); });
  full.awaitPurges(2);
  poor_asked.await()(Dictionary{{KELVANE_AMOUNT, 0}});
  runner.join();
  const auto asked = full.purgesAsked();
  EXPECT_EQ(asked[0].asked(), 50u);
  EXPECT_EQ(asked[1].asked(), 25u);
  EXPECT_EQ(asked[1].urgency, 1);
  EXPECT_EQ(poor.purgesAsked().size(), 1u);
}

TEST_F(PurgeOperation, OneThatGivesMoreThanItsShareStaysViableAndIsAskedAgain) {
  FakeService& generous = service("generous");
  FakeService& poor = service("poor");
  generous.purges(
      [first = true](std::uint64_t asked) mutable { return std::exchange(first, false) ? asked + 10 : 0; });
  tests::Answer<FakeService::ResultReply> poor_asked;
  poor.onPurge([poor_asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    poor_asked.come(reply);
  });
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  std::thread runner([&] { run(*it); });
  generous.awaitPurges(2);
  EXPECT_EQ(generous.purgesAsked()[1].asked(), 20u);  // half of the missing 40: both are viable
  poor_asked.await()(Dictionary{{KELVANE_AMOUNT, 0}});
  runner.join();
}

TEST_F(PurgeOperation, OneThatReturnsLessIsNotAskedAgainInThatPassAndTheOthersNextSharesGrow) {
  FakeService& full = service("full");
  FakeService& poor = service("poor");
  tests::Answer<FakeService::ResultReply> first_asked;
  full.onPurge(
      [&, first_asked](const FakeService::Purge& purge, const FakeService::ResultReply& reply) mutable {
        if (full.purgesAsked().size() == 1) {
          first_asked.come(reply);
        } else {
          reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
        }
      });
  poor.purges([](std::uint64_t) { return 10; });
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  std::thread runner([&] { run(*it); });
  const auto reply_to_first = first_asked.await();
  log_.await("connection to poor invalidated");  // its answer has been handled
  reply_to_first(Dictionary{{KELVANE_AMOUNT, 50}});
  runner.join();
  EXPECT_EQ(poor.purgesAsked().size(), 1u);
  ASSERT_EQ(full.purgesAsked().size(), 2u);
  EXPECT_EQ(full.purgesAsked()[1].asked(), 40u);  // all that is missing, no longer half
  EXPECT_EQ(completions_.back()->operator[](KELVANE_AMOUNT), Value(100));
}

TEST_F(PurgeOperation,
       APurgeAlreadyMetAfterPassOneStillProducesOperationInfoEntriesForEveryPassUpToTheLimit) {
  FakeService& full = service("full");
  full.purges(upTo(largest));
  const Dictionary result = purge({{KELVANE_AMOUNT, 50}, {KELVANE_URGENCY, 4}});
  for (int urgency = 1; urgency <= 4; ++urgency) {
    const std::string number = std::to_string(urgency);
    EXPECT_EQ(passOf(result, urgency)["KELVANE_OPERATION_STATS_URGENCY_" + number],
              Value("amount reported: 50, amountPurged: 50, purge_amount_needed: 50, cancel: FALSE"))
        << urgency;
  }
  EXPECT_EQ(full.purgesAsked().size(), 1u);
  EXPECT_EQ(log_.count("donation ("), 1u);  // nothing is shared out once the need is met
  EXPECT_EQ(reportOf(passOf(result, 1), "full"), 50u);
  EXPECT_FALSE(passOf(result, 2).contains(KELVANE_REPORTING_SERVICES));
}

TEST_F(PurgeOperation, ASecondReportInOnePassReplacesTheFirstInTheEntryAndBothAreCounted) {
  FakeService& full = service("full");
  service("poor").purges(upTo(0));
  full.purges(upTo(largest));
  const Dictionary result = purge({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  const auto asked = full.purgesAsked();
  EXPECT_EQ(reportOf(passOf(result, 1), "full"), asked.back().asked());
  std::uint64_t given = 0;
  for (const auto& each : asked) given += each.asked();
  EXPECT_GE(asked.size(), 2u);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(given));
  EXPECT_EQ(result[KELVANE_AMOUNT_REPORTED], Value(given));
}

TEST_F(PurgeOperation, EachPassAsksMoreUrgentlyForWhatIsStillMissing) {
  FakeService& eager = service("eager");
  eager.onPurge([](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
    reply(Dictionary{{KELVANE_AMOUNT, 10 * static_cast<std::uint64_t>(purge.urgency)}});
  });
  const Dictionary result = purge({{KELVANE_AMOUNT, 1000}, {KELVANE_URGENCY, 4}});
  const auto asked = eager.purgesAsked();
  ASSERT_EQ(asked.size(), 4u);
  const std::vector<std::uint64_t> shares{1000, 990, 970, 940};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(asked[i].urgency, static_cast<std::int32_t>(i + 1));
    EXPECT_EQ(asked[i].asked(), shares[i]);
  }
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(100));
}

// --- what a service is sent ---

TEST_F(PurgeOperation, ARequestCarriesTheWorkingDictionaryWithItsShareForTheAmount) {
  FakeService& poor = service("poor");
  poor.purges(upTo(0));
  purge({{KELVANE_AMOUNT, 7}, {KELVANE_URGENCY, 2}, {"extra", Dictionary{{"nested", Array{1, "two"}}}}});
  const auto asked = poor.purgesAsked();
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].info, info({{KELVANE_AMOUNT, 7},
                                 {KELVANE_URGENCY, 2},
                                 {KELVANE_FREESPACE_BEGIN, 1000},
                                 {"extra", Dictionary{{"nested", Array{1, "two"}}}}}));
  EXPECT_TRUE(asked[1].info.contains("KELVANE_URGENCY_1_OPERATION_INFO"));
  EXPECT_EQ(asked[1].info[KELVANE_AMOUNT], Value(7));
}

TEST_F(PurgeOperation, OnlyServicesThatPurgeAreKept) {
  service("purging");
  service("other");
  registry_["other"]->setDoesPurge(false);
  const auto it = operation({{KELVANE_AMOUNT, 5}});
  EXPECT_EQ(it->services().size(), 1u);
  EXPECT_TRUE(it->services().contains("purging"));
  EXPECT_EQ(it->viable_purging_services(), 1u);
  EXPECT_EQ(it->purge_amount_needed(), 5u);
  EXPECT_EQ(it->purge_amount_reported(), 0u);
  EXPECT_FALSE(it->cancel());
}

// --- the result ---

TEST_F(PurgeOperation, TheResultHoldsTheKeysOfTheTable) {
  FakeService& full = service("full");
  full.onPurge([&](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
    volumes_.setSpace("/data", VolumeSpace{1000 + purge.asked(), 2000, 0, 0});
    reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
  });
  const Dictionary result = purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(
      result,
      info({{KELVANE_URGENCY, 1},
            {KELVANE_AMOUNT, 60},
            {KELVANE_AMOUNT_REPORTED, 60},
            {KELVANE_ELAPSED_TIME, 0.0},
            {KELVANE_FREESPACE_BEGIN, 1000},
            {KELVANE_FREESPACE_END, 1060},
            {"KELVANE_URGENCY_1_OPERATION_INFO",
             Dictionary{{"KELVANE_OPERATION_STATS_URGENCY_1",
                         "amount reported: 60, amountPurged: 60, purge_amount_needed: 60, cancel: FALSE"},
                        {KELVANE_REPORTING_SERVICES, Dictionary{{"full", 60}}}}}}));
}

TEST_F(PurgeOperation, TheCompletionGetsEveryReplyAndLastTheResult) {
  service("full").purges(upTo(40));
  const Dictionary result = purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 1}});
  ASSERT_EQ(completions_.size(), 2u);
  EXPECT_EQ(*completions_[0], (Dictionary{{KELVANE_AMOUNT, 40}, {KELVANE_ELAPSED_TIME, 0.0}}));
  EXPECT_EQ(*completions_[1], result);
}

TEST_F(PurgeOperation, AReplysElapsedTimeIsInNanosecondsWhileTheFinalResultsIsInSeconds) {
  FakeService& slow = service("slow");
  slow.onPurge([&](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
    tests::awaitTimers(0);
    clock_.advance(1'500'000'000);
    reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
  });
  const Dictionary result = purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 1}});
  ASSERT_EQ(completions_.size(), 2u);
  EXPECT_EQ((*completions_[0])[KELVANE_ELAPSED_TIME], Value(1.5e9));
  EXPECT_EQ(result[KELVANE_ELAPSED_TIME], Value(1.5));
  EXPECT_TRUE(log_.contains(5, "slow took 1.500000 seconds, purged: 60"));
  EXPECT_EQ(distribution("slow_purgeElapsedNanoseconds").sum, 1.5e9);
}

TEST_F(PurgeOperation, WithoutAHostClockFactorElapsedTimesAreZero) {
  gTimebaseConversion = 0.0;
  FakeService& slow = service("slow");
  slow.onPurge([&](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
    tests::awaitTimers(0);
    clock_.advance(1'500'000'000);
    reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
  });
  EXPECT_EQ(purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 1}})[KELVANE_ELAPSED_TIME], Value(0.0));
}

TEST_F(PurgeOperation, ACancelledOperationStartsNoPassAndSaysSo) {
  FakeService& idle = service("idle");
  const auto it = operation({{KELVANE_AMOUNT, 60}});
  it->setCancel(true);
  const Dictionary result = run(*it);
  EXPECT_EQ(result[KELVANE_OPERATION_CANCELLED], Value(true));
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
  EXPECT_FALSE(result.contains("KELVANE_URGENCY_1_OPERATION_INFO"));
  EXPECT_EQ(idle.connectionsOpened(), 0);
}

TEST_F(PurgeOperation, NobodyToAskEndsAtOnceWithNothingFreed) {
  const Dictionary result = purge({{KELVANE_AMOUNT, 60}});
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
  EXPECT_EQ(passOf(result, 3)["KELVANE_OPERATION_STATS_URGENCY_3"],
            Value("amount reported: 0, amountPurged: 0, purge_amount_needed: 60, cancel: FALSE"));
}

// --- amounts that are none, and amounts that are large ---

class UselessAmount : public PurgeOperation, public testing::WithParamInterface<Value> {};

TEST_P(UselessAmount, EndsWithTheErrorAloneAndAsksNobody) {
  FakeService& idle = service("idle");
  const std::int64_t failed_before = counter("KelvanePurgeFailed");
  const Dictionary result = purge({{KELVANE_AMOUNT, GetParam()}, {KELVANE_URGENCY, 2}});
  EXPECT_EQ(result, (Dictionary{{KELVANE_ERROR, "Parameter error, no Amount key in info dict"}}));
  EXPECT_EQ(completions_.size(), 1u);
  EXPECT_EQ(idle.connectionsOpened(), 0);
  EXPECT_EQ(log_.count(3, "startOperation: 73 amount is not a number: "), 1u);
  EXPECT_EQ(counter("KelvanePurgeFailed"), failed_before);
}
INSTANTIATE_TEST_SUITE_P(Amounts, UselessAmount,
                         testing::Values(Value(), Value("262144000"), Value(Array{5}),
                                         Value(Dictionary{{"a", 5}})));

TEST_F(PurgeOperation, TheLargestAmountIsAskedForAndFallsShortByTheRest) {
  FakeService& full = service("full");
  full.purges(upTo(1000));
  const Dictionary result = purge({{KELVANE_AMOUNT, largest}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(full.purgesAsked().at(0).asked(), largest);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(1000));
}

TEST_F(PurgeOperation, MinusOneIsTheLargestAmount) {
  FakeService& full = service("full");
  full.purges(upTo(1000));
  purge({{KELVANE_AMOUNT, -1}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(full.purgesAsked().at(0).asked(), largest);
}

TEST_F(PurgeOperation, ReportsThatExceedTheLargestNumberStayTheLargest) {
  service("a").purges([](std::uint64_t) { return largest; });
  service("b").purges([](std::uint64_t) { return largest; });
  const Dictionary result = purge({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(largest));
}

TEST_F(PurgeOperation,
       AReplyWithoutANumericAmountCountsAsNothingAndMakesTheServiceNonViableForTheRestOfThePass) {
  FakeService& odd = service("odd");
  odd.onPurge([](const FakeService::Purge&, const FakeService::ResultReply& reply) {
    reply(Dictionary{{KELVANE_AMOUNT, "much"}});
  });
  const Dictionary result = purge({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(odd.purgesAsked().size(), 1u);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
  EXPECT_EQ(
      log_.count(
          3,
          "queueServiceRequest:info:urgency:operationInfo:group:completion: 230 num is not a number: much"),
      1u);
}

TEST_F(PurgeOperation, ANilReplyCountsAsNothingAndTheCompletionGetsNothing) {
  service("odd").onPurge(
      [](const FakeService::Purge&, const FakeService::ResultReply& reply) { reply(std::nullopt); });
  const Dictionary result = purge({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
  ASSERT_EQ(completions_.size(), 2u);
  EXPECT_FALSE(completions_[0].has_value());
  EXPECT_EQ(log_.count(3, "230 num is not a number: (null)"), 1u);
}

// --- statistics ---

TEST_F(PurgeOperation, FallingShortIsCountedWithTheDeficit) {
  service("short").purges(upTo(40));
  const std::int64_t failed = counter("KelvanePurgeFailed");
  const Distribution deficit = distribution("KelvanePurgeDeficit");
  const Distribution requested = distribution("KelvanePurgeAmountRequested");
  const Distribution purged = distribution("KelvanePurgeAmountPurged");
  purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 2}});
  EXPECT_EQ(counter("KelvanePurgeFailed"), failed + 1);
  EXPECT_EQ(distribution("KelvanePurgeDeficit").count, deficit.count + 1);
  EXPECT_EQ(distribution("KelvanePurgeDeficit").sum, deficit.sum + 20);
  EXPECT_EQ(distribution("KelvanePurgeAmountRequested").count, requested.count + 2);  // once per pass
  EXPECT_EQ(distribution("KelvanePurgeAmountPurged").sum, purged.sum + 40);
}

TEST_F(PurgeOperation, ThePercentageIsCutToTens) {
  const auto buckets = [](std::uint64_t requested, std::uint64_t purged, const std::string& name,
                          int bucket) {
    const std::string key = name + ".purged." + std::to_string(bucket) + ".percent";
    const std::int64_t before = counter(key);
    KelvanePurgeOperation::reportPercentageForAmountRequested(requested, purged, name);
    return counter(key) - before;
  };
  EXPECT_EQ(buckets(100, 0, "p", 0), 1);
  EXPECT_EQ(buckets(100, 59, "p", 50), 1);
  EXPECT_EQ(buckets(100, 100, "p", 100), 1);
  EXPECT_EQ(buckets(100, 250, "p", 250), 1);
  EXPECT_EQ(buckets(largest, 1, "p", -100), 1);  // as signed integers: 1 / -1
  EXPECT_EQ(counter("p.purged"), 0 + 59 + 100 + 250 + 1);
}

TEST_F(PurgeOperation, ThePercentageIsCountedBeforeTheBytes) {
  forgetStatistics();
  constexpr int room = 10'000 - 1;  // for one more name
  for (int i = 0; i < room; ++i) addReportStat(kelvane_domain, std::to_string(i).c_str(), 1);
  KelvanePurgeOperation::reportPercentageForAmountRequested(100, 50, "last");
  const Statistics statistics = statisticsOf(kelvane_domain);
  EXPECT_TRUE(statistics.counters.contains("last.purged.50.percent"));
  EXPECT_FALSE(statistics.counters.contains("last.purged"));
  forgetStatistics();
}

TEST_F(PurgeOperation, NothingRequestedCountsNoPercentageButTheBytes) {
  KelvanePurgeOperation::reportPercentageForAmountRequested(0, 5, "zero");
  const Statistics statistics = statisticsOf(kelvane_domain);
  EXPECT_EQ(statistics.counters.at("zero.purged"), 5);
  EXPECT_FALSE(statistics.counters.contains("zero.purged.0.percent"));
  EXPECT_TRUE(
      log_.contains(5, "reportPercentageForAmountRequested:amountPurged:identifier: zero donated 5 of 0"));
}

TEST_F(PurgeOperation, AServicesShareOfItsRequestIsCountedUnderItsName) {
  service("half").purges([](std::uint64_t asked) { return asked / 2; });
  purge({{KELVANE_AMOUNT, 60}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(counter("half.purged"), 30);
  EXPECT_EQ(counter("half.purged.50.percent"), 1);
  EXPECT_EQ(distribution("half_purgeElapsedNanoseconds").count, 1u);
}

}  // namespace
}  // namespace kelvane
