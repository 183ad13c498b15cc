// Passes that time out, services that die, and what is left when an operation ends.

#include <gtest/gtest.h>
#include <vector>

#include "tests/operations/answer.h"
#include "tests/operations/purge_fixture.h"

namespace kelvane {
namespace {

using tests::FakeService;
using tests::upTo;

constexpr std::int64_t second = 1'000'000'000;

class PurgeTimeout : public tests::PurgeFixture {
 protected:
  /// Runs it while moving the clock by these seconds, one after the other, each only when somebody waits for
  /// that moment and every service has been asked once more; the first time when `before_time` is in the log.
  Dictionary runPasses(KelvanePurgeOperation& operation, FakeService& silent,
                       const std::vector<std::int64_t>& seconds, const std::string& before_time = "") {
    std::thread runner([&] { run(operation); });
    std::size_t asked = asked_before_;
    if (!before_time.empty()) log_.await(before_time);
    for (const std::int64_t each : seconds) {
      silent.awaitPurges(++asked);
      tests::awaitTimers(0);
      clock_.advanceToWaiterFor(static_cast<std::uint64_t>(each * second));
    }
    runner.join();
    return *completions_.back();
  }

  std::size_t asked_before_ = 0;
};

TEST_F(PurgeTimeout, AnAbsentTimeoutWaitsTwoFourSixAndEightSeconds) {
  FakeService& silent = service("silent");
  const auto it = operation({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 4}});
  const Dictionary result = runPasses(*it, silent, {2, 4, 6, 8});
  for (int urgency = 1; urgency <= 4; ++urgency) {
    const Dictionary pass = passOf(result, urgency);
    EXPECT_EQ(pass["KELVANE_URGENCY_" + std::to_string(urgency) + "_TIMEOUT_SECONDS"], Value(2 * urgency));
    EXPECT_EQ(pass[KELVANE_SERVICES_INFLIGHT], Value(Array{"silent"}));
  }
  EXPECT_EQ(log_.count(3, "startOperation: timed out waiting for: (\"silent\")"), 4u);
  EXPECT_EQ(result[KELVANE_ELAPSED_TIME], Value(20.0));
}

TEST_F(PurgeTimeout, ATimeoutOfZeroWaitsAsIfAbsent) {
  FakeService& silent = service("silent");
  const auto it = operation({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 4}, {KELVANE_PURGE_TIMEOUT, 0}});
  EXPECT_EQ(runPasses(*it, silent, {2, 4, 6, 8})[KELVANE_ELAPSED_TIME], Value(20.0));
}

TEST_F(PurgeTimeout, ATimeoutOfAThousandWaitsThreeHundredSecondsPerPass) {
  FakeService& silent = service("silent");
  const auto it = operation({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 2}, {KELVANE_PURGE_TIMEOUT, 1000}});
  const Dictionary result = runPasses(*it, silent, {300, 300});
  EXPECT_EQ(passOf(result, 1)["KELVANE_URGENCY_1_TIMEOUT_SECONDS"], Value(300));
  EXPECT_TRUE(log_.contains(5, "startOperation: user_timeout_seconds: 1000"));
  EXPECT_TRUE(log_.contains(5, "waiting for 300 seconds, user_timeout_seconds: 300, currentUrgency: 1"));
}

TEST_F(PurgeTimeout, ATimeoutOfMoreThanThreeHundredSecondsIsCutToThreeHundred) {
  FakeService& silent = service("silent");
  for (const int given : {299, 300, 301, 999, 1000}) {
    const auto it = operation({{KELVANE_AMOUNT, 10}, {KELVANE_URGENCY, 1}, {KELVANE_PURGE_TIMEOUT, given}});
    log_.clear();
    asked_before_ = silent.purgesAsked().size();
    const int waited = std::min(given, 300);
    const Dictionary result = runPasses(*it, silent, {waited});
    EXPECT_EQ(passOf(result, 1)["KELVANE_URGENCY_1_TIMEOUT_SECONDS"], Value(waited)) << given;
    EXPECT_EQ(result[KELVANE_ELAPSED_TIME], Value(static_cast<double>(waited)));
  }
}

TEST_F(PurgeTimeout, AServiceThatIsCutOffIsAskedAgainInTheNextPassAndLosesItsConnection) {
  FakeService& silent = service("silent");
  FakeService& full = service("full");
  full.purges(upTo(30));
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 2}});
  const Dictionary result = runPasses(*it, silent, {2, 4}, "full service purged: 30");
  EXPECT_EQ(silent.purgesAsked().size(), 2u);
  EXPECT_EQ(silent.purgesAsked()[1].urgency, 2);
  silent.awaitClosed(2);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(30));
}

TEST_F(PurgeTimeout, ThePassGoesOnWithoutWaitingWhenEverybodyHasAnswered) {
  service("poor").purges(upTo(0));
  purge({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 4}});  // returns although the clock stands still
  EXPECT_FALSE(log_.contains("timed out"));
}

TEST_F(PurgeTimeout, AServiceThatDiesInItsPurgeCostsNoWaitAndIsNotAskedAgain) {
  FakeService& mortal = service("mortal");
  FakeService& full = service("full");
  mortal.onPurge(
      [&](const FakeService::Purge&, const FakeService::ResultReply&) { mortal.dropConnections(); });
  full.purges(upTo(1000));
  const Dictionary result = purge({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 4}});  // the clock stands still
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(100));
  EXPECT_EQ(mortal.purgesAsked().size(), 1u);
  EXPECT_FALSE(log_.contains("timed out"));
}

TEST_F(PurgeTimeout, AServiceThatIsGoneCostsNoWaitAndIsNotCountedInTheNextPass) {
  service("gone").~FakeService();
  new (services_.back().get()) FakeService("elsewhere");
  FakeService& full = service("full");
  full.purges(upTo(60));
  const Dictionary result = purge({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 2}});
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(60));
  EXPECT_TRUE(log_.contains(5, "connection to gone invalidated"));
}

TEST_F(PurgeTimeout, FallingShortWithServicesStillInFlightAsksThemToStop) {
  FakeService& busy = service("busy");
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  it->updateInFlight("busy", [] {});  // from elsewhere: the pass does not wait for it
  const Dictionary result = run(*it);
  EXPECT_EQ(log_.count(3, "startOperation: cancelling purge"), 1u);
  busy.awaitCancels(1);
  log_.await("cancelOperation connection invalidated: busy");
  EXPECT_TRUE(busy.purgesAsked().empty());
  EXPECT_EQ(it->viable_purging_services(), 0u);
  EXPECT_EQ(result[KELVANE_AMOUNT], Value(0));
}

TEST_F(PurgeTimeout, FallingShortBecauseAServiceEndedItsConnectionAsksItToStopAndNotOneThatWasTooSlow) {
  FakeService& mortal = service("mortal");
  FakeService& slow = service("slow");
  mortal.onPurge(
      [&](const FakeService::Purge&, const FakeService::ResultReply&) { mortal.dropConnections(); });
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  runPasses(*it, slow, {2});
  EXPECT_EQ(log_.count(3, "startOperation: timed out waiting for: (\"mortal\", \"slow\")"), 1u);
  EXPECT_FALSE(log_.contains("cancelling purge"));

  slow.purges(upTo(0));
  purge({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  EXPECT_EQ(log_.count(3, "startOperation: cancelling purge"), 1u);
  mortal.awaitCancels(1);
  EXPECT_EQ(slow.cancels(), 0);
}

TEST_F(PurgeTimeout, WhatComesAfterTheResultDoesNotReachTheCompletion) {
  FakeService& late = service("late");
  tests::Answer<FakeService::ResultReply> asked;
  late.onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    asked.come(reply);
  });
  const auto it = operation({{KELVANE_AMOUNT, 100}, {KELVANE_URGENCY, 1}});
  const Dictionary result = runPasses(*it, late, {2});
  asked.await()(Dictionary{{KELVANE_AMOUNT, 100}});
  late.awaitClosed(1);
  ASSERT_EQ(completions_.size(), 1u);
  EXPECT_EQ(*completions_[0], result);
  EXPECT_EQ(late.purgesAsked().size(), 1u);
}

TEST_F(PurgeTimeout, AnOperationIsGoneWhenItHasCompleted) {
  service("full").purges(upTo(1000));
  auto it = operation({{KELVANE_AMOUNT, 100}});
  run(*it);
  it.reset();
  while (!made_.back().expired())
    std::this_thread::yield();  // its connections' handlers were the last owners
}

}  // namespace
}  // namespace kelvane
