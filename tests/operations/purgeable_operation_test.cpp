#include "operations/purgeable_operation.h"

#include <gtest/gtest.h>
#include <limits>
#include <thread>

#include "tests/operations/purgeable_fixture.h"

namespace kelvane {
namespace {

using tests::FakeService;

constexpr std::uint64_t second = 1'000'000'000;
constexpr std::uint64_t wait = 10 * second;
constexpr std::uint64_t poll = 10'000'000;
constexpr auto greatest = std::numeric_limits<std::int64_t>::max();
constexpr auto least = std::numeric_limits<std::int64_t>::min();

class PurgeableOperation : public tests::PurgeableFixture {
 protected:
  static Dictionary resultOf(Dictionary figures, std::int64_t total) {
    figures.set(KELVANE_TOTAL_AVAILABLE, total);
    figures.set(KELVANE_VOLUME, "/data");
    return figures;
  }
  /// Runs it while the clock is moved past the wait and past so many polls, each only when somebody waits
  /// for that moment. `before_poll` runs before each of them.
  Dictionary runPolling(KelvanePurgeableOperation& operation, FakeService& silent, int polls,
                        const std::function<void(int)>& before_poll = nullptr) {
    Dictionary result;
    const std::size_t asked = silent.questions().size();
    std::thread runner([&] { result = run(operation); });
    silent.awaitQuestions(asked + 1);
    tests::awaitTimers(0);
    clock_.advanceToWaiterFor(wait);
    for (int i = 0; i < polls; ++i) {
      clock_.awaitWaiterFor(poll);
      if (before_poll) before_poll(i);
      clock_.advance(poll);
    }
    runner.join();
    return result;
  }
};

// --- making ---

TEST_F(PurgeableOperation, IsNotMadeWhereTheBaseIsNot) {
  EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Array{}, {}, state_), nullptr);
  EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Dictionary{}, {}, state_), nullptr);
  EXPECT_EQ(KelvanePurgeableOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/nowhere"}}, {}, state_),
            nullptr);
}

TEST_F(PurgeableOperation, AServiceThatDoesNotPurgeOrIsNotToBeQueriedIsNeverAskedButItsCachedFigureCounts) {
  for (const char* const ID : {"quiet", "quiet and unknown", "idle", "idle and unknown"}) service(ID, 1);
  registry_["quiet"]->setDoNotQuery(true);
  registry_["quiet and unknown"]->setDoNotQuery(true);
  registry_["idle"]->setDoesPurge(false);
  registry_["idle and unknown"]->setDoesPurge(false);
  remember({{"quiet", figure(30)}, {"idle", figure(12)}});
  const auto it = operation();
  EXPECT_TRUE(it->services().empty());
  EXPECT_TRUE(it->cachedInfo(info())[KELVANE_SERVICES_TO_QUERY].array()->empty());
  EXPECT_EQ(run(*it), resultOf({{"quiet", 30}, {"idle", 12}}, 42));
  for (const auto& each : services_) EXPECT_EQ(each->connectionsOpened(), 0);
}

TEST_F(PurgeableOperation, CancellingItDoesNothing) {
  FakeService& one = service("one");
  const auto it = operation();
  it->updateInFlight("one", [] {});
  it->cancelOperation();
  EXPECT_TRUE(it->isInFlight("one"));
  EXPECT_EQ(one.connectionsOpened(), 0);
}

// --- asking and counting ---

TEST_F(PurgeableOperation, EveryAskedServicesFigureAndTheirSumAreTheResult) {
  const auto timed = [] {
    return statisticsOf(kelvane_domain).distributions["one_purgeableElapsedNanoseconds"].count;
  };
  FakeService& one = service("one", 10);
  service("two", 32);
  const std::uint64_t timed_before = timed();
  EXPECT_EQ(ask(), resultOf({{"one", std::uint64_t{10}}, {"two", std::uint64_t{32}}}, 42));
  ASSERT_EQ(one.questions().size(), 1U);
  EXPECT_EQ(one.questions()[0].urgency, 3);
  EXPECT_EQ(one.questions()[0].info, info());
  EXPECT_EQ(timed(), timed_before + 1);
  EXPECT_EQ(log_.count(5, "startOperation: ^^^asking one for urgency 3"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: one took 0.000000 seconds, returned: {KELVANE_AMOUNT = 10;}"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: connection invalidated: one"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: Still in flight: ()"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: elapsed time: 0.000000 result: {KELVANE_TOTAL_AVAILABLE = 42; "),
            1U);
}

TEST_F(PurgeableOperation, EveryServiceIsAskedAtTheUrgencyLimitOfTheQuestion) {
  FakeService& one = service("one", 10);
  for (const std::int32_t urgency : {1, 2, 4}) {
    state_->set(Value());
    run(*operation(urgency));
    EXPECT_EQ(one.questions().back().urgency, urgency);
  }
}

TEST_F(PurgeableOperation, WhenAllFiguresAreCachedNobodyIsAskedAndNobodyIsWaitedFor) {
  FakeService& one = service("one", 1);
  remember({{"one", figure(5)}});
  EXPECT_EQ(ask(), resultOf({{"one", 5}}, 5));
  EXPECT_EQ(one.connectionsOpened(), 0);
  EXPECT_FALSE(log_.contains("waiting for a little bit"));
  EXPECT_EQ(log_.count(5, "startOperation: cachedInfo (2nd pass): "), 1U);
}

TEST_F(PurgeableOperation, AnswersInTimeAreNotWaitedForAnyLongerAndNothingIsCancelled) {
  service("one", 1);
  service("two", 2);
  EXPECT_EQ(ask()[KELVANE_TOTAL_AVAILABLE], Value(3));
  EXPECT_FALSE(log_.contains("waiting for a little bit"));
  EXPECT_FALSE(log_.contains("done waiting"));
}

TEST_F(PurgeableOperation, AnAnswerGivenOnceIsCountedTheNextTimeWithoutAsking) {
  FakeService& one = service("one", 7);
  EXPECT_EQ(ask(), ask());
  EXPECT_EQ(one.questions().size(), 1U);
  clock_.advance(121 * second);
  ask();
  EXPECT_EQ(one.questions().size(), 2U);
}

TEST_F(PurgeableOperation, AServiceInFlightAlreadyIsNotAskedAgain) {
  FakeService& one = service("one", 7);
  const auto it = operation();
  it->updateInFlight("one", [] {});
  std::thread runner([&] { EXPECT_EQ(run(*it), resultOf({}, 0)); });
  for (int i = 0; i < 15; ++i) clock_.advanceToWaiterFor(poll);
  runner.join();
  EXPECT_EQ(one.connectionsOpened(), 0);
}

// --- what services may answer ---

TEST_F(PurgeableOperation, ANilAnswerCountsAsZeroBytes) {
  service("one").answersPurgeable(std::nullopt);
  EXPECT_EQ(ask(), resultOf({{"one", 0}}, 0));
  EXPECT_EQ(log_.count(5, "startOperation: one took 0.000000 seconds, returned: (null)"), 1U);
}

TEST_F(PurgeableOperation, AnEmptyAnswerUpdatesNoFigureAndTheOthersGoOn) {
  service("empty").answersPurgeable(Dictionary());
  service("other", 4);
  EXPECT_EQ(ask(), resultOf({{"other", std::uint64_t{4}}}, 4));
}

TEST_F(PurgeableOperation, AnAmountThatIsNoNumberStaysInTheResultAndOutOfTheTotal) {
  service("text").answersPurgeable(Dictionary{{KELVANE_AMOUNT, "12"}});
  service("list").answersPurgeable(Dictionary{{KELVANE_AMOUNT, Array{12}}});
  service("other", 4);
  EXPECT_EQ(ask(), resultOf({{"text", "12"}, {"list", Array{12}}, {"other", std::uint64_t{4}}}, 4));
  EXPECT_EQ(log_.count(3, "startOperation: 175 text num is not a number: 12"), 1U);
  EXPECT_EQ(log_.count(3, "startOperation: 175 list num is not a number: (12)"), 1U);
}

TEST_F(PurgeableOperation, ANegativeAmountAndOneAboveSixtyThreeBitsCountAsSignedNumbers) {
  service("negative").answersPurgeable(Dictionary{{KELVANE_AMOUNT, -5}});
  service("largest", std::numeric_limits<std::uint64_t>::max());
  service("plain", 100);
  const Dictionary result = ask();
  EXPECT_EQ(result["largest"], Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(result[KELVANE_TOTAL_AVAILABLE], Value(100 - 5 - 1));
}

TEST_F(PurgeableOperation, TheTotalStopsAtTheEndsOfSixtyThreeBitsAndLosesNothingInBetween) {
  remember({{"a", figure(greatest)}, {"b", figure(greatest)}});
  EXPECT_EQ(ask()[KELVANE_TOTAL_AVAILABLE], Value(greatest));
  remember({{"a", figure(least)}, {"b", figure(-1)}});
  EXPECT_EQ(ask()[KELVANE_TOTAL_AVAILABLE], Value(least));
  remember({{"a", figure(greatest)}, {"b", figure(greatest)}, {"c", figure(least)}, {"d", figure(-10)}});
  EXPECT_EQ(ask()[KELVANE_TOTAL_AVAILABLE], Value(greatest - 11));
}

TEST_F(PurgeableOperation, AServiceThatOptsOutIsSkippedByTheSameOperationFor120SecondsAndThenAskedAgain) {
  FakeService& one = service("one");
  one.answersPurgeable(Dictionary{{KELVANE_AMOUNT, 5}, {KELVANE_OPT_OUT, false}});
  const auto it = operation();
  EXPECT_EQ(run(*it), resultOf({{"one", 5}}, 5));
  EXPECT_EQ(log_.count(5, "startOperation: one has {KELVANE_AMOUNT = 5; KELVANE_OPT_OUT = "), 1U);
  EXPECT_EQ(it->optOuts().count("one"), 1U);
  state_->set(Value());
  clock_.advance(119 * second);
  EXPECT_EQ(run(*it), resultOf({}, 0));
  EXPECT_EQ(one.questions().size(), 1U);
  clock_.advance(second);
  EXPECT_EQ(run(*it), resultOf({{"one", 5}}, 5));
  EXPECT_EQ(one.questions().size(), 2U);
}

TEST_F(PurgeableOperation, AnOptOutThatIsOverIsRemoved) {
  const auto it = operation();
  EXPECT_FALSE(it->optOutService("one", false));
  EXPECT_FALSE(it->optOutService("one", true));
  EXPECT_TRUE(it->optOutService("one", false));
  clock_.advance(120 * second);
  EXPECT_FALSE(it->optOutService("one", false));
  EXPECT_TRUE(it->optOuts().empty());
}

TEST_F(PurgeableOperation, ANewOperationKnowsNothingOfEarlierOptOuts) {
  FakeService& one = service("one");
  one.answersPurgeable(Dictionary{{KELVANE_AMOUNT, 5}, {KELVANE_OPT_OUT, true}});
  ask();
  state_->set(Value());
  ask();
  EXPECT_EQ(one.questions().size(), 2U);
}

// --- services that do not answer in time ---

TEST_F(PurgeableOperation, AtUrgency3PollingEndsAfter15PollsAndThenAllAreCancelled) {
  FakeService& silent = service("silent");
  service("quick", 3);
  EXPECT_EQ(runPolling(*operation(3), silent, 15), resultOf({{"quick", std::uint64_t{3}}}, 3));
  silent.awaitClosed(1);
  EXPECT_EQ(log_.count(5, "startOperation: ^^^waiting for a little bit"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: --------- tick --------- "), 8U);
  EXPECT_EQ(log_.count(5, "startOperation: --------- tock --------- "), 7U);
  EXPECT_EQ(log_.count(5, "startOperation: --------- tick --------- 0 ---------"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: --------- tick --------- 14 ---------"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: ^^^done waiting, inFlight: (\"silent\")"), 1U);
  EXPECT_EQ(log_.count("maxExtensions"), 0U);
  EXPECT_EQ(log_.count(5, "startOperation: Still in flight: ()"), 1U);
}

TEST_F(PurgeableOperation, AtUrgency4TheBudgetCountsDownFrom5To1AndPollingEndsAfter85Polls) {
  FakeService& silent = service("silent");
  EXPECT_EQ(runPolling(*operation(4), silent, 85), resultOf({}, 0));
  std::vector<std::string> budgets;
  for (const auto& line : log_.lines()) {
    if (line.text.find("maxExtensions") != std::string::npos) budgets.push_back(line.text);
  }
  std::vector<std::string> from_5_to_1;
  for (int budget = 5; budget >= 1; --budget)
    from_5_to_1.push_back("startOperation: maxExtensions: " + std::to_string(budget));
  EXPECT_EQ(budgets, from_5_to_1);
  EXPECT_EQ(log_.count(5, "--------- tick --------- 0 ---------"), 1U);
  EXPECT_EQ(log_.count(5, "--------- tock --------- 1 ---------"), 6U);
  EXPECT_EQ(log_.count(5, "--------- tick --------- 14 ---------"), 6U);
  EXPECT_EQ(log_.count("--------- t"), 85U);
}

TEST_F(PurgeableOperation, AnAnswerDuringThePollsIsCountedAndEndsThem) {
  FakeService& late = service("late");
  const auto it = operation();
  const Dictionary result = runPolling(*it, late, 3, [&](int at) {
    if (at != 2) return;
    late.answerKept(Dictionary{{KELVANE_AMOUNT, 9}});
    while (it->isInFlight("late")) std::this_thread::yield();
  });
  EXPECT_EQ(result, resultOf({{"late", 9}}, 9));
  EXPECT_EQ(log_.count(5, "startOperation: ^^^beat the timeout, woohoo!"), 1U);
  EXPECT_EQ(log_.count("--------- t"), 3U);
}

TEST_F(PurgeableOperation, AnAnswerAfterItsTimeIsIgnored) {
  FakeService& silent = service("silent");
  EXPECT_EQ(runPolling(*operation(), silent, 15), resultOf({}, 0));
  silent.awaitClosed(1);
  silent.answerKept(Dictionary{{KELVANE_AMOUNT, 9}});
  EXPECT_EQ(state_->raw(), Value());
}

TEST_F(PurgeableOperation, AServiceThatDiesWhileItIsAskedIsAbsentAndTheOthersAreCounted) {
  FakeService& dying = service("dying");
  service("other", 4);
  Dictionary result;
  std::thread runner([&] { result = run(*operation()); });
  dying.awaitQuestions(1);
  dying.dropConnections();
  // Nobody waits the ten seconds: the group is empty. The polls are for what is in flight still.
  for (int i = 0; i < 15; ++i) clock_.advanceToWaiterFor(poll);
  runner.join();
  EXPECT_EQ(result, resultOf({{"other", std::uint64_t{4}}}, 4));
}

TEST_F(PurgeableOperation, AServiceThatCannotBeReachedIsAbsent) {
  registry_["nowhere"] = std::make_shared<KVService>("nowhere");
  registry_["nowhere"]->setDoesPurge(true);
  Dictionary result;
  std::thread runner([&] { result = run(*operation()); });
  for (int i = 0; i < 15; ++i) clock_.advanceToWaiterFor(poll);
  runner.join();
  EXPECT_EQ(result, resultOf({}, 0));
}

TEST_F(PurgeableOperation, AServiceThatIsNotAskedInTimeStillCountsWithTheFigureThatTheRecordHolds) {
  FakeService& silent = service("silent");
  service("known", 1);
  remember({{"known", figure(50)}});
  EXPECT_EQ(runPolling(*operation(), silent, 15), resultOf({{"known", 50}}, 50));
}

TEST_F(PurgeableOperation, AHundredServicesAreAskedAtOnceAndAllCounted) {
  for (int i = 0; i < 100; ++i) service("s" + std::to_string(i), 10);
  const Dictionary result = ask();
  EXPECT_EQ(result.size(), 102U);
  EXPECT_EQ(result[KELVANE_TOTAL_AVAILABLE], Value(1000));
}

}  // namespace
}  // namespace kelvane
