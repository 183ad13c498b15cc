#include "daemon/kelvane.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <thread>
#include <vector>

#include "platform/foundation/user_defaults.h"
#include "tests/daemon/daemon_fixture.h"
#include "tests/operations/answer.h"
#include "tests/operations/fake_service.h"

namespace kelvane {
namespace {

class CentralObject : public tests::DaemonFixture {};

TEST_F(CentralObject, StartsWithItsFieldsAsTheyShallBe) {
  const auto it = kelvane();
  EXPECT_EQ(dispatch_queue_get_label(it->collection_queue()), "com.orvel.kelvane_cancel");
  EXPECT_EQ(dispatch_queue_get_label(it->defaults_queue()), "com.orvel.kelvane_defaults");
  EXPECT_EQ(dispatch_queue_get_label(it->purge_queue()), "com.orvel.kelvane_purge");
  EXPECT_EQ(dispatch_queue_get_label(it->purgeable_queue()), "com.orvel.kelvane_purgeable");
  EXPECT_EQ(dispatch_queue_get_label(it->periodic_queue()), "com.orvel.kelvane_periodic");
  EXPECT_EQ(dispatch_queue_get_label(it->notify_queue()), "com.orvel.kelvane_notify");
  EXPECT_EQ(dispatch_queue_get_label(it->daemons_queue()), "com.orvel.kelvane_daemons");
  EXPECT_EQ(it->rootPath(), directory_.path());
  EXPECT_NE(it->userDefaults(), nullptr);
  EXPECT_NE(it->listener(), nullptr);
  EXPECT_EQ(it->default_values(), (Dictionary{{"KELVANE_CACHE_ENABLED", true}}));
  EXPECT_TRUE(it->optOuts().empty());
  EXPECT_EQ(it->operations(), std::nullopt);
  EXPECT_EQ(it->purgeOperations(), std::nullopt);
  EXPECT_TRUE(it->isListening());
}

TEST_F(CentralObject, ScansTheSystemDirectoryAndThenTheInternalOneAndOpensItsListenerLast) {
  kelvane();
  std::vector<std::string> lines;
  for (const auto& line : log_.lines()) {
    if (line.text.starts_with("init ")) lines.push_back(line.text);
  }
  const std::string system = directory_.path() + "/System/Library/Kelvane/";
  EXPECT_EQ(lines, (std::vector<std::string>{"init plistDir: " + system, "init scanning " + system,
                                             "init scanning " + directory_ / internal_folder,
                                             "init resuming listener"}));
}

TEST_F(CentralObject, TheSystemDirectoryOfTheRealRootBeginsWithTwoSlashes) {
  Environment real = environment();
  real.root = Environment().root;
  made_.push_back(Kelvane::init(real));
  EXPECT_TRUE(log_.contains(5, "init plistDir: //System/Library/Kelvane/"));
}

TEST_F(CentralObject, RequestsInFlightCountsWhateverCollectionItIsGiven) {
  const auto it = kelvane();
  EXPECT_EQ(it->requestsInFlight(InFlight{{"one", [] {}}, {"two", [] {}}}), 2U);
  EXPECT_EQ(it->requestsInFlight(Array{}), 0U);
  EXPECT_EQ(it->requestsInFlight(Dictionary{{"a", 1}}), 1U);
}

TEST_F(CentralObject, CopyServicesReturnsASnapshotACheckInAfterTheCopyDoesNotChangeIt) {
  descriptor(systemFile("a.plist"), Dictionary{{KELVANE_ID, "declared"}});
  const auto it = kelvane();
  const Services before = it->copyServices();
  const tests::FakeService late("late");
  const auto connection = xpc::Connection::initWithSocketPath(directory_ / "kelvane.sock");
  connection->resume();
  tests::Answer<std::optional<Dictionary>> checked_in;
  connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([](const xpc::Error&) {})
      ->clientCheckin(
          "late", late.endpoint(), {},
          [checked_in](const std::optional<Dictionary>& reply) mutable { checked_in.come(reply); });
  EXPECT_NE(checked_in.await(), std::nullopt);
  EXPECT_EQ(before.size(), 1u);
  const Services after = it->mutableServices();
  EXPECT_EQ(after.size(), 2u);
  EXPECT_EQ(after.at("declared"), before.at("declared"));  // the records are shared
  connection->invalidate();
}

TEST_F(CentralObject, SnapshotsOfTheServicesAreTakenOnTheQueueThatOwnsThem) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const tests::ScopedEnvironment inside("TMPDIR", directory_.path());  // holds what the dying process leaves
  const auto it = kelvane();
  EXPECT_DEATH(dispatch_sync(it->collection_queue(), [&] { static_cast<void>(it->mutableServices()); }),
               "waiting synchronously for a queue from one of its own items");
}

TEST_F(CentralObject, WithoutSettingsItGoesOnAndSaysSo) {
  directory_.write("file", "");
  const tests::ScopedEnvironment nowhere("STATE_DIRECTORY", directory_ / "file");
  const auto it = kelvane();
  EXPECT_EQ(it->userDefaults(), nullptr);
  EXPECT_TRUE(it->isListening());
  EXPECT_EQ(log_.count(3, "init Unable to initialize user defaults!"), 1u);
}

TEST_F(CentralObject, ASecondOneOnTheSameSocketIsNotListeningAndTheFirstGoesOn) {
  const auto first = kelvane();
  const auto second = kelvane();
  EXPECT_TRUE(first->isListening());
  EXPECT_FALSE(second->isListening());
  EXPECT_EQ(log_.count(3, directory_ / "kelvane.sock"), 1u);
  const auto connection = xpc::Connection::initWithSocketPath(directory_ / "kelvane.sock");
  const auto proxy =
      connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([](const xpc::Error&) {});
  connection->resume();
  tests::Answer<bool> answered;
  proxy->clientCancelPurge({}, [answered]() mutable { answered.come(true); });
  EXPECT_TRUE(answered.await());
  connection->invalidate();
}

TEST_F(CentralObject, APeerWithoutTheClientEntitlementIsRefused) {
  const auto it = kelvane();
  directory_.write("none.d/test.plist",
                   propertyListXML(Dictionary{{"user", std::uint64_t{::getuid()}},
                                              {entitlements_key, Array{PURGE_ENTITLEMENT}}})
                       .xml);
  loadEntitlementGrants({directory_ / "none.d"});
  const auto connection = xpc::Connection::initWithSocketPath(directory_ / "kelvane.sock");
  tests::Answer<std::string> refused;
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>(
      [refused](const xpc::Error& error) mutable { refused.come(error.name); });
  connection->resume();
  proxy->clientCancelPurge({}, [] { FAIL() << "nobody may answer"; });
  EXPECT_EQ(refused.await(), xpc::error_disconnected);
}

TEST_F(CentralObject, TheSharedOneIsMadeOnceOnWhicheverThreadComesFirst) {
  Kelvane::setSharedEnvironment(environment());
  std::vector<std::shared_ptr<Kelvane>> seen(4);
  std::vector<std::thread> threads;
  threads.reserve(seen.size());
  for (auto& each : seen) threads.emplace_back([&each] { each = Kelvane::sharedKelvane(); });
  for (auto& thread : threads) thread.join();
  for (const auto& each : seen) EXPECT_EQ(each, seen.front());
  EXPECT_EQ(log_.count(5, "init resuming listener"), 1u);
  seen.front()->setListener(nullptr);  // it lives as long as the process
}

}  // namespace
}  // namespace kelvane
