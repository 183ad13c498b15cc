#include "daemon/start_up.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "operations/periodic_operation.h"
#include "operations/timebase.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/xpc/transaction.h"
#include "tests/daemon/daemon_fixture.h"
#include "tests/operations/answer.h"
#include "tests/operations/fake_service.h"
#include "tests/support/scoped_environment.h"

namespace kelvane {
namespace {

class StartUp : public tests::DaemonFixture {
 protected:
  StartUp() {
    functions_.shared_kelvane = [this] { return shared_ = kelvane(); };
    functions_.notify_post = [this](const char* name) {
      posted_.emplace_back(name);
      return 0U;
    };
  }
  /// Until the check-in that start-up queued, which is a transaction, has been handled.
  static void awaitCheckIn() {
    tests::Answer<bool> checked_in;
    xpc_activity_register(daily_activity, XPC_ACTIVITY_CHECK_IN,
                          [checked_in](const xpc_activity_t&) mutable { checked_in.come(true); });
    checked_in.await();
    while (xpc_transaction_count() != 0) std::this_thread::yield();
  }
  void TearDown() override {
    // The handlers that start-up left behind hold the central object.
    awaitCheckIn();
    xpc_activity_register(daily_activity, XPC_ACTIVITY_CHECK_IN, [](const xpc_activity_t&) {});
    xpc_set_event_stream_handler(vfs_event_stream, dispatch_get_global_queue(0, 0),
                                 [](const Dictionary&, Block) {});
    std::signal(SIGTERM, SIG_DFL);
    gTimebaseConversion = 0.0;
    shared_.reset();
    while (xpc_transaction_count() != 0) std::this_thread::yield();
    DaemonFixture::TearDown();
  }

  /// Delivers the event and waits until it is handled. False when nobody handles that stream.
  static bool isHandled(const std::string& stream, const Dictionary& event) {
    tests::Answer<bool> handled;
    return xpc_post_event(stream, event, [handled]() mutable { handled.come(true); }) && handled.await();
  }
  static bool isRun(const std::string& activity) {
    tests::Answer<bool> over;
    return xpc_run_activity(activity, [over]() mutable { over.come(true); }) && over.await();
  }
  /// How many were open when the line that begins so was written.
  [[nodiscard]] std::uint32_t transactionsAt(const std::string& text) const {
    for (const auto& line : log_.lines()) {
      if (line.text.starts_with(text)) return line.transactions;
    }
    return 0;
  }

  StartUpFunctions functions_;
  std::shared_ptr<Kelvane> shared_;
  std::vector<std::string> posted_;
};

TEST_F(StartUp, TakesTheHostClocksFactor) {
  functions_.timebase_info = [](mach_timebase_info_data_t* info) {
    *info = {125, 3};
    return KERN_SUCCESS;
  };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_EQ(gTimebaseConversion, 125.0 / 3.0);
  EXPECT_EQ(log_.count(5, "main timebaseInfo:  125 / 3, gTimebaseConversion: 41.666667"), 1u);
}

TEST_F(StartUp, AFailingTimebaseInfoDoesNotStopItTheFactorStaysZeroAndTheDaemonStillAnnouncesItself) {
  functions_.timebase_info = [](mach_timebase_info_data_t*) { return 5; };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_EQ(gTimebaseConversion, 0.0);
  EXPECT_EQ(log_.count(3, "main Failed to get timebase info"), 1u);
  EXPECT_EQ(posted_, std::vector<std::string>{"com.orvel.kelvane.launched"});
  EXPECT_TRUE(log_.contains(5, "main Kelvane, open for business!"));
}

TEST_F(StartUp, TakesTheFactorBeforeItMakesTheCentralObjectAndAnnouncesItselfLast) {
  std::vector<std::string> steps;
  const auto step = [&](const char* name) {
    EXPECT_GE(xpc_transaction_count(), 1U) << name;
    steps.emplace_back(name);
  };
  functions_.timebase_info = [&](mach_timebase_info_data_t* info) {
    step("timebase");
    *info = {1, 1};
    return KERN_SUCCESS;
  };
  functions_.shared_kelvane = [&] {
    step("central object");
    EXPECT_EQ(gTimebaseConversion, 1.0);
    return shared_ = kelvane();
  };
  functions_.notify_post = [&](const char* /*name*/) {
    step("announcement");
    EXPECT_FALSE(log_.contains("open for business"));
    return 0U;
  };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_EQ(steps, (std::vector<std::string>{"timebase", "central object", "announcement"}));
  EXPECT_EQ(log_.count(5, "main Kelvane, open for business!"), 1U);
  EXPECT_GE(transactionsAt("main Kelvane, open for business!"), 1U);
}

TEST_F(StartUp, TheNotificationIsPostedAfterTheListenerIsResumedAndBothHandlersAreInstalled) {
  volumes_.add("/data");
  bool connected = false;
  bool event_handled = false;
  bool activity_run = false;
  bool terminates = false;
  functions_.notify_post = [&](const char*) {
    const auto connection = xpc::Connection::initWithSocketPath(directory_ / "kelvane.sock");
    const auto proxy =
        connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([](const xpc::Error&) {});
    connection->resume();
    tests::Answer<bool> answered;
    proxy->clientCancelPurge({}, [answered]() mutable { answered.come(true); });
    connected = answered.await();
    connection->invalidate();
    // The names may still refer to handlers of an earlier test, so their effect is checked.
    event_handled = isHandled("com.orvel.dispatch.vfs", Dictionary{{"_Flags", 4}}) &&
                    log_.contains(3, "handleVFSStreamXPCEvent: caught VQ_LOWDISK");
    activity_run = isRun("com.orvel.Kelvane.daily") &&
                   log_.contains(5, "performPeriodicsWithInfo: result: {KELVANE_AMOUNT = 0;}");
    struct sigaction action {};
    ::sigaction(SIGTERM, nullptr, &action);
    terminates = action.sa_handler == sigterm_handler;
    return 0U;
  };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_TRUE(connected);
  EXPECT_TRUE(event_handled);
  EXPECT_TRUE(activity_run);
  EXPECT_TRUE(terminates);
}

TEST_F(StartUp, ANotificationThatCannotBePostedIsLoggedAndStartUpContinues) {
  functions_.notify_post = [](const char*) {
    errno = EROFS;
    return 1U;
  };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_EQ(log_.count(3, "main notify_post failed: Read-only file system"), 1u);
  EXPECT_TRUE(log_.contains(5, "open for business!"));
}

TEST_F(StartUp, WithoutAListenerNothingIsAnnounced) {
  const auto other = kelvane();
  EXPECT_FALSE(startUp(functions_));
  EXPECT_TRUE(posted_.empty());
  EXPECT_FALSE(log_.contains("open for business!"));
}

TEST_F(StartUp, IsATransactionThatIsOverWhenItReturns) {
  std::uint32_t during = 0;
  functions_.notify_post = [&](const char*) {
    during = xpc_transaction_count();
    return 0U;
  };
  ASSERT_TRUE(startUp(functions_));
  EXPECT_GE(during, 1u);
}

// --- the daily activity ---

TEST_F(StartUp, AnActivityCallbackInAnyStateOtherThanRunDoesNoWorkAndReturns) {
  volumes_.add("/data");
  const auto it = kelvane();
  for (const long state : {0L, 1L, 3L, 4L, 5L})
    handleDailyActivity(std::make_shared<xpc::Activity>(state), it);
  EXPECT_EQ(log_.count("performPeriodicsWithInfo:"), 0u);
  EXPECT_EQ(xpc_transaction_count(), 0u);
}

TEST_F(StartUp, AnActivityCallbackInTheRunStateSweepsEveryLocalVolumeBeforeItReturns) {
  volumes_.add("/data");
  volumes_.add("/archive");
  handleDailyActivity(std::make_shared<xpc::Activity>(XPC_ACTIVITY_STATE_RUN), kelvane());
  std::vector<std::string> swept;
  for (const auto& line : log_.lines()) {
    if (line.text.starts_with("performPeriodicsWithInfo:")) swept.push_back(line.text);
  }
  EXPECT_EQ(swept, std::vector<std::string>(2, "performPeriodicsWithInfo: result: {KELVANE_AMOUNT = 0;}"));
  EXPECT_EQ(xpc_transaction_count(), 0u);
}

TEST_F(StartUp, TheHandlersOfTheActivityAndOfTheEventStreamAreTransactions) {
  volumes_.add("/data");
  ASSERT_TRUE(startUp(functions_));
  awaitCheckIn();
  handleDailyActivity(std::make_shared<xpc::Activity>(XPC_ACTIVITY_STATE_RUN), shared_);
  ASSERT_TRUE(isHandled(vfs_event_stream, Dictionary{{"_Flags", 4}}));
  EXPECT_EQ(transactionsAt("performPeriodicsWithInfo: result"), 1U);
  EXPECT_EQ(transactionsAt("handleVFSStreamXPCEvent: caught VQ_LOWDISK"), 1U);
}

TEST_F(StartUp, ASweepDoesNotCallAServiceThatDoesPeriodicWorkAndIsNotInFlightAndLogsTheResultZero) {
  volumes_.add("/data");
  const auto it = kelvane();
  tests::FakeService periodic("periodic");
  const auto record = periodic.record();
  record->setDoesPeriodic(true);
  dispatch_sync(it->collection_queue(), [&] { it->services()["periodic"] = record; });
  it->performPeriodicsWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}});
  EXPECT_EQ(log_.count("CallService with serviceID"), 0U);
  EXPECT_EQ(periodic.connectionsOpened(), 0);
  EXPECT_EQ(log_.count(5, "performPeriodicsWithInfo: result: {KELVANE_AMOUNT = 0;}"), 1U);
}

TEST_F(StartUp, ThreeVolumesAreThreeOperationsOneAfterAnotherEachWaitingAtMost15Seconds) {
  ManualClock clock;
  const std::uint64_t start = clock.now();
  const std::vector<std::string> all{"/a", "/b", "/c"};
  for (const std::string& each : all) volumes_.add(each);
  tests::FakeService silent("silent");
  const Services services{{"called", silent.record()}};
  services.at("called")->setDoesPeriodic(true);
  std::vector<std::uint64_t> ended;
  std::thread sweeping([&] {
    sweepVolumes(all, [&](const Dictionary& info) {
      const auto operation = KelvanePeriodicOperation::initWithInfo(info, services);
      operation->updateInFlight("called", [] {});  // only who is in flight is called
      operation->startOperation([&](const Dictionary&) { ended.push_back(clock.now() - start); });
    });
  });
  for (std::size_t volume = 0; volume < all.size(); ++volume) {
    silent.awaitPeriodics(volume + 1);
    EXPECT_EQ(silent.periodics().size(), volume + 1);
    EXPECT_EQ(silent.periodics()[volume].info, (Dictionary{{KELVANE_VOLUME, all[volume]}}));
    tests::awaitTimers(0);
    clock.advanceToWaiterFor(15'000'000'000);
    silent.awaitClosed(static_cast<int>(volume) + 1);
  }
  sweeping.join();
  EXPECT_EQ(ended, (std::vector<std::uint64_t>{15'000'000'000, 30'000'000'000, 45'000'000'000}));
}

TEST_F(StartUp, EachVolumeOfASweepIsTheOneEntryOfItsInfo) {
  std::vector<Dictionary> infos;
  sweepVolumes({"/b", "/a"}, [&](const Dictionary& info) { infos.push_back(info); });
  EXPECT_EQ(infos, (std::vector<Dictionary>{{{"KELVANE_VOLUME", "/b"}}, {{"KELVANE_VOLUME", "/a"}}}));
}

TEST_F(StartUp, ASweepOverZeroLocalVolumesQueuesNothing) {
  handleDailyActivity(std::make_shared<xpc::Activity>(XPC_ACTIVITY_STATE_RUN), kelvane());
  EXPECT_EQ(log_.count("performPeriodicsWithInfo:"), 0u);
  sweepVolumes({}, [](const Dictionary&) { FAIL() << "there is no volume"; });
}

// --- the end ---

class Termination : public tests::DaemonFixture {};

TEST_F(Termination, SIGTERMWhileAPurgeIsRunningEndsTheProcessAtOnceWithStatusZero) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const tests::ScopedEnvironment inside("TMPDIR", directory_.path());  // what the ended leaves
  EXPECT_EXIT(
      {
        volumes_.add("/data");
        const auto it = kelvane();
        tests::FakeService silent("silent");
        dispatch_sync(it->collection_queue(), [&] { it->services()["silent"] = silent.record(); });
        tests::Answer<bool> purged;
        it->purge(Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, 5}}, nullptr,
                  [purged](const std::optional<Dictionary>&) mutable { purged.come(true); });
        silent.awaitPurges(1);
        std::signal(SIGTERM, sigterm_handler);
        std::atexit([] { ::_exit(7); });  // nothing is flushed or destroyed
        ::alarm(2);                       // and nothing is waited for
        ::kill(::getpid(), SIGTERM);
        purged.await();
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kelvane
