#include <gtest/gtest.h>
#include <memory>
#include <thread>

#include "common/keys.h"
#include "operations/operation.h"
#include "platform/dispatch/manual_clock.h"
#include "tests/operations/fake_service.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane {
namespace {

using tests::FakeService;
using tests::FakeVolumes;
using tests::LogCapture;

class CancelOperation : public testing::Test {
 protected:
  CancelOperation() { volumes_.add("/data"); }

  static std::shared_ptr<KelvaneOperation> operation(const Services& services) {
    return KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}}, services);
  }
  void TearDown() override { tests::awaitNoConnections(); }

  LogCapture log_;
  FakeVolumes volumes_;
};

TEST_F(CancelOperation, EveryServiceInFlightIsAskedToStopAndNoOther) {
  const ManualClock clock;
  FakeService asked("asked");
  FakeService idle("idle");
  const auto it = operation({{"asked", asked.record()}, {"idle", idle.record()}});
  it->updateInFlight("asked", [] { FAIL() << "the purge request itself must go on"; });
  it->cancelOperation();
  asked.awaitCancels(1);
  log_.await("cancelOperation connection invalidated: asked");
  EXPECT_EQ(idle.connectionsOpened(), 0);
  EXPECT_TRUE(it->isInFlight("asked"));
  it->updateInFlight("asked", nullptr);
}

TEST_F(CancelOperation, TheWaitReturnsAtOnceOnAHostThatHasBeenUpForLong) {
  const ManualClock clock;  // stands an hour in
  FakeService silent("silent");
  silent.answersCancel(false);
  const auto it = operation({{"silent", silent.record()}});
  it->updateInFlight("silent", [] {});
  it->cancelOperation();  // returns although nothing answers and no time passes
  silent.awaitCancels(1);
  silent.dropConnections();
  log_.await("cancelOperation connection invalidated: silent");
}

TEST_F(CancelOperation, AConnectionThatIsNeverAnsweredIsEndedAllTheSame) {
  ManualClock clock;
  FakeService silent("silent");
  silent.answersCancel(false);
  const auto it = operation({{"silent", silent.record()}});
  it->updateInFlight("silent", [] {});
  it->cancelOperation();
  silent.awaitCancels(1);
  tests::awaitTimers(1);  // the one that ends it
  clock.advanceToWaiterFor(20'000'000'000);
  log_.await("cancelOperation connection invalidated: silent");
}

TEST_F(CancelOperation, OnAFreshHostTheWaitEndsTwentySecondsAfterTheClockBegan) {
  ManualClock clock(1'000'000'000);
  FakeService silent("silent");
  silent.answersCancel(false);
  const auto it = operation({{"silent", silent.record()}});
  it->updateInFlight("silent", [] {});
  std::thread canceller([&] { it->cancelOperation(); });
  silent.awaitCancels(1);
  tests::awaitTimers(0);
  clock.advanceToWaiterFor(19'000'000'000);
  canceller.join();
  log_.await("cancelOperation connection invalidated: silent");
}

TEST_F(CancelOperation, AServiceThatIsGoneLeavesTheGroupOnce) {
  ManualClock clock(1'000'000'000);
  auto gone = std::make_unique<FakeService>("gone");
  const auto it = operation({{"gone", gone->record()}});
  gone.reset();
  it->updateInFlight("gone", [] {});
  it->cancelOperation();  // returns without the clock being moved: the group was left
  EXPECT_EQ(log_.count("cancelOperation connection invalidated: gone"), 1u);
}

}  // namespace
}  // namespace kelvane
