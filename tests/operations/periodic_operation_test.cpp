#include "operations/periodic_operation.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/manual_clock.h"
#include "tests/operations/fake_service.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane {
namespace {

using tests::FakeService;

constexpr std::uint64_t wait = 15'000'000'000;

class PeriodicOperation : public testing::Test {
 protected:
  PeriodicOperation() { volumes_.add("/data"); }
  void TearDown() override {
    services_.clear();
    for (const auto& operation : made_) {
      while (!operation.expired()) std::this_thread::yield();
    }
    tests::awaitNoConnections();
  }

  FakeService& service(const std::string& ID, const std::string& registered_as) {
    services_.push_back(std::make_unique<FakeService>(ID));
    registry_[registered_as] = services_.back()->record();
    registry_[registered_as]->setDoesPeriodic(true);
    return *services_.back();
  }
  std::shared_ptr<KelvanePeriodicOperation> operation() {
    auto it = KelvanePeriodicOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}}, registry_);
    made_.push_back(it);
    return it;
  }
  static Dictionary run(KelvanePeriodicOperation& operation) {
    std::vector<Dictionary> results;
    operation.startOperation([&](const Dictionary& result) { results.push_back(result); });
    EXPECT_EQ(results.size(), 1U);
    return results.back();
  }
  static Dictionary freed(std::uint64_t bytes) { return {{KELVANE_AMOUNT, bytes}}; }

  tests::LogCapture log_;
  tests::FakeVolumes volumes_;
  ManualClock clock_;
  std::vector<std::unique_ptr<FakeService>> services_;
  Services registry_;
  std::vector<std::weak_ptr<KelvanePeriodicOperation>> made_;
};

TEST_F(PeriodicOperation, IsNotMadeWhereTheBaseIsNot) {
  EXPECT_EQ(KelvanePeriodicOperation::initWithInfo(Dictionary{}, registry_), nullptr);
  EXPECT_EQ(KelvanePeriodicOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/nowhere"}}, registry_),
            nullptr);
}

TEST_F(PeriodicOperation, WithoutAServiceThatDoesPeriodicWorkTheResultIsZeroAndNobodyIsWaitedFor) {
  FakeService& purging = service("purging", "purging");
  registry_["purging"]->setDoesPeriodic(false);
  EXPECT_TRUE(operation()->services().empty());
  EXPECT_EQ(run(*operation()), freed(0));
  EXPECT_EQ(purging.connectionsOpened(), 0);
}

TEST_F(PeriodicOperation, AServiceThatIsNotInTheInFlightTableIsNotCalled) {
  FakeService& one = service("one", "one");
  EXPECT_EQ(run(*operation()), freed(0));
  EXPECT_EQ(one.connectionsOpened(), 0);
  EXPECT_EQ(log_.count("CallService with serviceID"), 0U);
}

TEST_F(PeriodicOperation, AServiceInTheInFlightTableUnderItsOwnIDIsConnectedToButNotAsked) {
  FakeService& one = service("one", "one");
  const auto it = operation();
  it->updateInFlight("one", [] {});
  EXPECT_EQ(run(*it), freed(0));
  EXPECT_TRUE(one.periodics().empty());
  EXPECT_EQ(log_.count(5, "startOperation: CallService with serviceID: one"), 1U);
}

// A service is called only when the table knows it by the registry's name and not by its own.

TEST_F(PeriodicOperation, AServiceThatReplies100AndAnotherThatReplies50LaterMakeTheResult50) {
  FakeService& first = service("first", "a");
  FakeService& second = service("second", "b");
  const auto it = operation();
  it->updateInFlight("a", [] {});
  it->updateInFlight("b", [] {});
  Dictionary result;
  std::thread runner([&] { result = run(*it); });
  first.awaitPeriodics(1);
  second.awaitPeriodics(1);
  first.answerKept(freed(100));
  first.awaitClosed(1);
  second.answerKept(freed(50));
  runner.join();
  EXPECT_EQ(result, freed(50));
  EXPECT_EQ(first.periodics()[0].urgency, 3);
  EXPECT_EQ(first.periodics()[0].info, (Dictionary{{KELVANE_VOLUME, "/data"}}));
  EXPECT_EQ(log_.count(5, "startOperation: calling proxy for first"), 1U);
  EXPECT_EQ(log_.count(5, "startOperation: proxy first replied, purged: {KELVANE_AMOUNT = 100;}"), 1U);
}

TEST_F(PeriodicOperation, AReplyWithoutANumberLeavesTheAmountAsItIs) {
  FakeService& first = service("first", "a");
  FakeService& second = service("second", "b");
  const auto it = operation();
  it->updateInFlight("a", [] {});
  it->updateInFlight("b", [] {});
  Dictionary result;
  std::thread runner([&] { result = run(*it); });
  first.awaitPeriodics(1);
  second.awaitPeriodics(1);
  first.answerKept(freed(100));
  first.awaitClosed(1);
  second.answerKept(Dictionary{{KELVANE_AMOUNT, "7"}});
  runner.join();
  EXPECT_EQ(result, freed(100));
}

TEST_F(PeriodicOperation, AServiceThatStaysSilentIsCancelledAfter15Seconds) {
  FakeService& silent = service("silent", "a");
  const auto it = operation();
  it->updateInFlight("a", [] {});
  Dictionary result;
  std::thread runner([&] { result = run(*it); });
  silent.awaitPeriodics(1);
  tests::awaitTimers(0);
  clock_.advanceToWaiterFor(wait);
  runner.join();
  EXPECT_EQ(result, freed(0));
  EXPECT_EQ(
      log_.count(5, "startOperation: timed out waiting for: {a = \"callback\"; silent = \"callback\";}"), 1U);
  silent.awaitClosed(1);
  EXPECT_EQ(it->inFlightCount(), 0U);
}

TEST_F(PeriodicOperation, AServiceThatDiesIsWaitedForNoLonger) {
  FakeService& dying = service("dying", "a");
  const auto it = operation();
  it->updateInFlight("a", [] {});
  Dictionary result;
  std::thread runner([&] { result = run(*it); });
  dying.awaitPeriodics(1);
  dying.dropConnections();
  runner.join();
  EXPECT_EQ(result, freed(0));
  log_.await("startOperation: connection invalidated");
}

}  // namespace
}  // namespace kelvane
