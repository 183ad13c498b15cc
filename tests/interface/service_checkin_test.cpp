#include <gtest/gtest.h>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/dispatch/executor.h"
#include "platform/foundation/user_defaults.h"
#include "platform/wire/account.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Caller;
using tests::FakeService;

constexpr const char* not_entitled = "clientCheckin:endpoint:info:reply: Connection is not entitled!";

class Checkin : public tests::InterfaceFixture {
 protected:
  static void readState(Caller& process) {
    tests::Answer<bool> answer;
    process.proxy().clientGetState(xpc::Anything{"key"},
                                   [answer](const Value&) mutable { answer.come(true); });
    answer.await();
  }
};

Dictionary replyFor(const std::string& ID) { return Dictionary{{"KELVANE_ID", ID}, {"ANON", true}}; }

TEST_F(Checkin, AServiceIsRecordedConnectedAndPinged) {
  FakeService& it = service("cache");
  const auto reply = caller().checkIn(
      "cache", it.endpoint(),
      Dictionary{{"PURGE", true}, {"PERIODIC", true}, {"KELVANE_NOTIFICATIONS", Array{"a", "b"}}});
  EXPECT_EQ(reply.await(), replyFor("cache"));
  EXPECT_EQ(it.pings(), 1);
  const auto service = record("cache");
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->ID(), "cache");
  EXPECT_TRUE(service->doesPurge());
  EXPECT_TRUE(service->doesPeriodic());
  EXPECT_FALSE(service->doNotQuery());
  EXPECT_EQ(service->desiredNotifications(), (std::set<std::string>{"a", "b"}));
  EXPECT_NE(service->xpcConn(), nullptr);
  EXPECT_TRUE(service->endpoint());
  EXPECT_TRUE(log_.contains(5, "pingService: calling servicePing"));
  EXPECT_TRUE(log_.contains(5, "pingService: ping got pong"));
}

TEST_F(Checkin,
       WithTheIDOfAServiceDeclaredByADescriptorFileItIsAnsweredWithNothingAndNothingIsRecordedOrChecked) {
  registry_->daemons_ = {"declared"};
  grant({});
  FakeService& it = service("declared");
  EXPECT_EQ(caller().checkIn("declared", it.endpoint(), {}).await(), std::nullopt);
  EXPECT_EQ(record("declared"), nullptr);
  EXPECT_EQ(it.pings(), 0);
  EXPECT_FALSE(log_.contains(not_entitled));
}

TEST_F(Checkin, WithAnIDOf255BytesIsServedAndWithOneMoreIsRefusedWithTheReason) {
  const std::string longest(255, 'x');
  FakeService& it = service(longest);
  EXPECT_EQ(caller().checkIn(longest, it.endpoint(), {}).await(), replyFor(longest));
  Caller& process = caller();
  const auto reply = process.checkIn(longest + "x", it.endpoint(), {});
  EXPECT_EQ(process.error().await(), xpc::error_limits_exceeded);
  EXPECT_EQ(process.failure(), "the ID of the service has 256 bytes: expected at most 255");
  EXPECT_FALSE(reply.hasCome());
  EXPECT_EQ(record(longest + "x"), nullptr);
}

TEST_F(Checkin, WithAnIDThatIsTooLongByAnUnentitledCallerGetsNoReplyEver) {
  grant({CLIENT_ENTITLEMENT});
  FakeService& it = service("cache");
  Caller& process = caller();
  const auto reply = process.checkIn(std::string(256, 'x'), it.endpoint(), {});
  process.cancel({});
  EXPECT_FALSE(reply.hasCome());
  EXPECT_FALSE(process.error().hasCome());
}

TEST_F(Checkin, WithMoreNamesOfNotificationsThanOneServiceMayKeepIsRefused) {
  Array names;
  for (int i = 0; i < 300; ++i) names.append("com.example.notification" + std::to_string(i));
  FakeService& it = service("cache");
  Caller& process = caller();
  process.checkIn("cache", it.endpoint(), Dictionary{{"KELVANE_NOTIFICATIONS", names}});
  EXPECT_EQ(process.error().await(), xpc::error_limits_exceeded);
  EXPECT_EQ(record("cache"), nullptr);
}

TEST_F(Checkin, CountsInTheAccountOfItsUserUntilTheRecordGoes) {
  const auto account = wire::Accounts::shared().of(::getuid());
  const auto registered = [&] { return account->used(wire::Resource::services); };
  const std::uint64_t before = registered();
  FakeService& it = service("cache");
  Caller& process = caller();
  process.checkIn("cache", it.endpoint(), {}).await();
  process.checkIn("cache", it.endpoint(), {}).await();  // again: the same record
  EXPECT_EQ(registered(), before + 1);
  it.dropConnections();
  awaitRemoval("cache");
  while (registered() != before) std::this_thread::yield();
}

TEST_F(Checkin, OfOneServiceMoreThanTheUserMayRegisterIsRefusedWithTheReason) {
  const auto account = wire::Accounts::shared().of(::getuid());
  const auto others = wire::Charge::adopt(account, wire::Resource::services,
                                          account->chargeUpTo(wire::Resource::services, UINT64_MAX));
  FakeService& it = service("cache");
  Caller& process = caller();
  process.checkIn("cache", it.endpoint(), {});
  EXPECT_EQ(process.error().await(), xpc::error_limits_exceeded);
  EXPECT_EQ(process.failure(), "user " + std::to_string(::getuid()) + " has " +
                                   std::to_string(account->limit(wire::Resource::services)) +
                                   " services registered, which is the limit");
  EXPECT_EQ(record("cache"), nullptr);
  EXPECT_EQ(it.pings(), 0);
}

TEST_F(Checkin, ByAnUnentitledCallerGetsNoReplyEverAndTheLevelThreeLogLine) {
  grant({CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT});
  FakeService& it = service("cache");
  Caller& process = caller();
  const auto reply = process.checkIn("cache", it.endpoint(), {});
  process.cancel({});  // goes through the same connection and the collection queue
  EXPECT_FALSE(reply.hasCome());
  EXPECT_FALSE(process.error().hasCome());
  EXPECT_EQ(log_.count(3, not_entitled), 1u);
  EXPECT_EQ(record("cache"), nullptr);
  EXPECT_EQ(it.pings(), 0);
  process.invalidate();
  EXPECT_EQ(process.error().await(), xpc::error_disconnected);
  EXPECT_FALSE(reply.hasCome());
}

TEST_F(Checkin, ASecondOfALiveServiceWithANewEndpointKeepsTheRecordAndTakesOnlyTheFlags) {
  FakeService& first = service("cache");
  Caller& process = caller();
  EXPECT_EQ(process.checkIn("cache", first.endpoint(), Dictionary{{"PURGE", true}}).await(),
            replyFor("cache"));
  const auto before = record("cache");
  const auto connection = before->xpcConn();
  const xpc::Endpoint endpoint = before->endpoint();

  FakeService& second = service("cache");
  const Dictionary info{{"PERIODIC", true}, {"KELVANE_NOTIFICATIONS", Array{"n"}}};
  EXPECT_EQ(process.checkIn("cache", second.endpoint(), info).await(), replyFor("cache"));
  EXPECT_EQ(record("cache"), before);
  EXPECT_EQ(before->xpcConn(), connection);
  EXPECT_EQ(before->endpoint(), endpoint);
  EXPECT_FALSE(before->doesPurge());
  EXPECT_TRUE(before->doesPeriodic());
  EXPECT_TRUE(before->desiresNotification("n"));
  EXPECT_EQ(first.pings(), 1);
  EXPECT_EQ(second.connectionsOpened(), 0);
  EXPECT_EQ(log_.count(5, "clientCheckin:endpoint:info:reply: operating on an existing service"), 1u);
}

TEST_F(Checkin, ASecondWithAnEmptyInfoTakesTheFlagsAndTheNamesOfNotificationsAway) {
  FakeService& it = service("cache");
  Caller& process = caller();
  const Dictionary info{{"PURGE", true}, {"PERIODIC", true}, {"KELVANE_NOTIFICATIONS", Array{"n"}}};
  process.checkIn("cache", it.endpoint(), info).await();
  EXPECT_TRUE(record("cache")->desiresNotification("n"));
  process.checkIn("cache", it.endpoint(), {}).await();
  EXPECT_FALSE(record("cache")->doesPurge());
  EXPECT_FALSE(record("cache")->doesPeriodic());
  EXPECT_EQ(record("cache")->desiredNotifications(), std::nullopt);
}

TEST_F(Checkin, WithAnEmptyInfoTheFlagsAreFalseAndTheReplyIsTheSame) {
  FakeService& it = service("cache");
  EXPECT_EQ(caller().checkIn("cache", it.endpoint(), {}).await(), replyFor("cache"));
  const auto service = record("cache");
  ASSERT_NE(service, nullptr);
  EXPECT_FALSE(service->doesPurge());
  EXPECT_FALSE(service->doesPeriodic());
  EXPECT_EQ(service->desiredNotifications(), std::nullopt);
}

TEST_F(Checkin, FlagsOfAnotherTypeAreFalseAndNamesThatAreNoStringsAreLeftOut) {
  FakeService& it = service("cache");
  const Dictionary info{
      {"PURGE", "yes"}, {"PERIODIC", Array{true}}, {"KELVANE_NOTIFICATIONS", Array{"a", 5, Dictionary()}}};
  caller().checkIn("cache", it.endpoint(), info).await();
  EXPECT_FALSE(record("cache")->doesPurge());
  EXPECT_FALSE(record("cache")->doesPeriodic());
  EXPECT_EQ(record("cache")->desiredNotifications(), std::set<std::string>{"a"});
}

TEST_F(Checkin, AnyStringIsAnID) {
  Caller& process = caller();
  for (const char* ID : {"", "a/b", "..", "with spaces \xC3\xA9"}) {
    FakeService& it = service(ID);
    EXPECT_EQ(process.checkIn(ID, it.endpoint(), Dictionary{{"PURGE", 1}}).await(), replyFor(ID));
    ASSERT_NE(record(ID), nullptr) << ID;
    EXPECT_TRUE(record(ID)->doesPurge());
  }
}

// --- the end of a connection ---

TEST_F(Checkin, OnInterruptionOfAServicesConnectionItsRecordIsRemoved) {
  FakeService& it = service("cache");
  caller().checkIn("cache", it.endpoint(), {}).await();
  it.dropConnections();
  awaitRemoval("cache");
  EXPECT_TRUE(log_.contains(5, "clientCheckin:endpoint:info:reply: interruptionHandler ENTRY"));
}

TEST_F(Checkin, OnInvalidationOfAServicesConnectionItsRecordIsRemoved) {
  FakeService& it = service("cache");
  caller().checkIn("cache", it.endpoint(), {}).await();
  record("cache")->xpcConn()->invalidate();
  awaitRemoval("cache");
  EXPECT_TRUE(log_.contains(5, "clientCheckin:endpoint:info:reply: invalidationHandler ENTRY"));
}

TEST_F(Checkin, AServiceThatWasDroppedMayCheckInAnew) {
  FakeService& it = service("cache");
  Caller& process = caller();
  process.checkIn("cache", it.endpoint(), {}).await();
  it.dropConnections();
  awaitRemoval("cache");
  EXPECT_EQ(process.checkIn("cache", it.endpoint(), {}).await(), replyFor("cache"));
  EXPECT_EQ(it.pings(), 2);
  EXPECT_NE(record("cache"), nullptr);
}

TEST_F(Checkin, AHandlerOfASupersededConnectionFiresAfterTheServiceHasCheckedInAnewAndTheNewRecordStays) {
  FakeService& old = service("cache");
  caller().checkIn("cache", old.endpoint(), {}).await();
  const auto old_record = record("cache");
  FakeService& anew = service("cache");
  const auto new_record = anew.record();
  dispatch_sync(registry_->collection_queue(), [&] { registry_->services()["cache"] = new_record; });
  old.dropConnections();
  log_.await("interruptionHandler ENTRY");
  // The handler queues its removal after it has written the line, on the connection's own queue.
  dispatch_sync(old_record->xpcConn()->queue(), [] {});
  EXPECT_EQ(record("cache"), new_record);
}

TEST_F(Checkin, ALateHandlerOfAConnectionWhoseServiceWasDroppedAndHasCheckedInAnewRemovesNothing) {
  for (const bool record_is_freed : {false, true}) {
    const std::string ID = record_is_freed ? "freed" : "kept";
    FakeService& old = service(ID);
    caller().checkIn(ID, old.endpoint(), {}).await();
    auto old_record = record(ID);
    const auto connection = old_record->xpcConn();
    old.dropConnections();
    awaitRemoval(ID);
    caller().checkIn(ID, service(ID).endpoint(), {}).await();
    const auto new_record = record(ID);
    ASSERT_NE(new_record, nullptr);
    ASSERT_NE(new_record, old_record);
    const std::weak_ptr<KVService> seen = old_record;
    if (record_is_freed) old_record.reset();
    ASSERT_EQ(seen.expired(), record_is_freed);
    log_.clear();
    connection->invalidate();  // an interrupted connection has its other handler still
    log_.await("invalidationHandler ENTRY");
    dispatch_sync(connection->queue(), [] {});
    EXPECT_EQ(record(ID), new_record);
  }
}

TEST_F(Checkin, AnEndpointThatNobodyServesIsAnsweredAndItsRecordGoesAgain) {
  auto gone = std::make_unique<FakeService>("gone");
  const xpc::Endpoint endpoint = gone->endpoint();
  gone.reset();
  EXPECT_EQ(caller().checkIn("gone", endpoint, {}).await(), replyFor("gone"));
  awaitRemoval("gone");
  EXPECT_TRUE(log_.contains(5, "invalidationHandler ENTRY"));
  EXPECT_TRUE(
      log_.contains(5, "clientCheckin:endpoint:info:reply: remoteObjectProxyWithErrorHandler error: "));
}

TEST_F(Checkin, AServiceThatDiesInItsPingCostsItsOwnRecordOnly) {
  FakeService& mortal = service("mortal");
  FakeService& well = service("well");
  mortal.onPing([&](const Reply<>&) { mortal.dropConnections(); });
  Caller& process = caller();
  process.checkIn("mortal", mortal.endpoint(), {}).await();
  EXPECT_EQ(process.checkIn("well", well.endpoint(), {}).await(), replyFor("well"));
  awaitRemoval("mortal");
  EXPECT_NE(record("well"), nullptr);
  EXPECT_EQ(log_.count(5, "ping got pong"), 1u);
}

TEST_F(Checkin, WhileAServiceDoesNotAnswerItsPingEveryOtherCheckInWaits) {
  FakeService& silent = service("silent");
  FakeService& well = service("well");
  tests::Answer<Reply<>> ping;
  silent.onPing([ping](const Reply<>& reply) mutable { ping.come(reply); });
  const auto first = caller().checkIn("silent", silent.endpoint(), {});
  silent.awaitPings(1);
  const auto second = caller().checkIn("well", well.endpoint(), {});
  EXPECT_FALSE(second.hasCome());
  EXPECT_EQ(well.connectionsOpened(), 0);
  ping.await()();
  EXPECT_EQ(first.await(), replyFor("silent"));
  EXPECT_EQ(second.await(), replyFor("well"));
}

TEST_F(Checkin, AServiceThatDoesNotAnswerItsPingHoldsNoThread) {
  FakeService& silent = service("silent");
  tests::Answer<Reply<>> ping;
  silent.onPing([ping](const Reply<>& reply) mutable { ping.come(reply); });
  const auto reply = caller().checkIn("silent", silent.endpoint(), {});
  const auto pong = ping.await();
  dispatch::Executor::shared().letIdleThreadsGoAfter(std::chrono::milliseconds(1));
  while (dispatch_statistics().threads > 1) std::this_thread::yield();  // the one that polls
  EXPECT_FALSE(reply.hasCome());
  pong();
  EXPECT_EQ(reply.await(), replyFor("silent"));
}

TEST_F(Checkin, ASecondThatComesBeforeThePingIsAnsweredWaitsAndItsFlagsCount) {
  FakeService& it = service("cache");
  tests::Answer<Reply<>> ping;
  it.onPing([ping](const Reply<>& reply) mutable { ping.come(reply); });
  Caller& process = caller();
  const auto first = process.checkIn("cache", it.endpoint(), Dictionary{{"PURGE", true}});
  const auto pong = ping.await();
  const auto second = process.checkIn("cache", it.endpoint(), Dictionary{{"PERIODIC", true}});
  readState(process);  // the second has been read
  EXPECT_FALSE(first.hasCome());
  pong();
  EXPECT_EQ(second.await(), replyFor("cache"));
  EXPECT_TRUE(first.hasCome());
  EXPECT_FALSE(record("cache")->doesPurge());
  EXPECT_TRUE(record("cache")->doesPeriodic());
}

TEST_F(Checkin, AServiceThatAnswersItsPingWithAnErrorLosesItsConnectionAndItsRecord) {
  const auto listener = xpc::Listener::anonymousListener();
  tests::Answer<bool> closed;
  listener->setConnectionHandler([closed](const std::shared_ptr<xpc::Connection>& connection) {
    connection->setInterruptionHandler([closed]() mutable { closed.come(true); });
    connection->resume();  // exports no object, so every call gets an error
  });
  listener->resume();
  EXPECT_EQ(caller().checkIn("odd", listener->takeEndpoint(), {}).await(), replyFor("odd"));
  EXPECT_TRUE(closed.await());
  awaitRemoval("odd");
  EXPECT_EQ(log_.count(5, "remoteObjectProxyWithErrorHandler error: "), 1u);
  EXPECT_EQ(log_.count(5, "ping got pong"), 0u);
  listener->invalidate();
}

TEST_F(Checkin, PingSaysWhetherTheServiceAnswered) {
  FakeService& it = service("cache");
  const auto connection = xpc::Connection::initWithListenerEndpoint(it.endpoint());
  const auto proxy =
      connection->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>([](const xpc::Error&) {});
  connection->resume();
  const auto pong = [&] {
    tests::Answer<bool> finished;
    ClientInterface::pingService(proxy, [finished](bool answered) mutable { finished.come(answered); });
    return finished.await();
  };
  EXPECT_TRUE(pong());
  connection->invalidate();
  EXPECT_FALSE(pong());
}

// --- notifications ---

class Notification : public tests::InterfaceFixture {
 protected:
  Notification() {
    registry_->user_defaults_ = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
  }
  /// Waits until everything posted so far is sent to its recipients.
  void awaitNotificationsSent() {
    dispatch_sync(registry_->collection_queue(), [] {});
    dispatch_sync(registry_->notify_queue(), [] {});
  }
  FakeService& wanting(const std::string& ID, const std::set<std::string>& names) {
    FakeService& it = registered(ID);
    record(ID)->setDesiredNotifications(names);
    return it;
  }
};

TEST_F(Notification, WhoseNameNoServiceWantsOpensNoConnection) {
  FakeService& other = wanting("other", {"another"});
  FakeService& none = registered("none");
  registry_->notifyRecipients("name", 5);
  awaitNotificationsSent();
  EXPECT_EQ(other.connectionsOpened(), 0);
  EXPECT_EQ(none.connectionsOpened(), 0);
  EXPECT_EQ(log_.count("serviceID: "), 0u);  // written before a connection could be noticed
  EXPECT_TRUE(log_.contains(5, "notifyRecipients:value: name: name, value: 5"));
}

TEST_F(Notification, TwoServicesThatWantTheSameNameEachReceiveTheDictionary) {
  FakeService& a = wanting("a", {"name", "other"});
  FakeService& b = wanting("b", {"name"});
  registry_->notifyRecipients("name", Array{1, "two"});
  const Dictionary expected{{"name", Array{1, "two"}}};
  for (FakeService* each : {&a, &b}) {
    each->awaitNotifications(1);
    EXPECT_EQ(each->notifications().at(0), expected);
  }
  log_.await("notifyRecipients:value: connection invalidated", 2);
  EXPECT_EQ(log_.count(5, "notifyRecipients:value: 369 serviceID: a"), 1u);
  EXPECT_EQ(log_.count(5, "notifyRecipients:value: 369 serviceID: b"), 1u);
}

TEST_F(Notification, OfNothingIsAnEmptyDictionary) {
  FakeService& a = wanting("a", {"name"});
  registry_->notifyRecipients("name", Value());
  a.awaitNotifications(1);
  EXPECT_EQ(a.notifications().at(0), Dictionary());
  log_.await("notifyRecipients:value: connection invalidated");
}

TEST_F(Notification, ThatCannotBeDeliveredIsLoggedAndDropped) {
  auto gone = std::make_unique<FakeService>("gone");
  const auto service = gone->record();
  service->setDesiredNotifications(std::set<std::string>{"name"});
  gone.reset();
  dispatch_sync(registry_->collection_queue(), [&] { registry_->services()["gone"] = service; });
  registry_->notifyRecipients("name", 1);
  log_.await("notifyRecipients:value: connection invalidated");
}

TEST_F(Notification, ToAServiceThatAnswersNoneTakesOneConnectionAndThenTheOthersComeInTheirOrder) {
  FakeService& it = registered("silent");
  it.answersNotifications(false);
  record("silent")->setDesiredNotifications(std::set<std::string>{"name"});
  constexpr unsigned kept = NotificationOutbox::most_waiting + 1;
  for (unsigned i = 1; i <= kept + 5; ++i) registry_->notifyRecipients("name", i);
  it.awaitNotifications(1);
  awaitNotificationsSent();
  EXPECT_EQ(it.connectionsOpened(), 1);
  it.answersNotifications(true);
  it.answerKeptNotification();
  it.awaitNotifications(kept);
  std::vector<Dictionary> expected;
  for (unsigned i = 1; i < kept; ++i) expected.push_back({{"name", i}});
  expected.push_back({{"name", kept + 5}});
  EXPECT_EQ(it.notifications(), expected);
}

TEST_F(Notification, IsPostedAndAnsweredToItsWriterWhileTheRegistryWaitsForAService) {
  FakeService& it = wanting("cache", {KELVANE_CACHE_ENABLED});
  FakeService& silent = service("silent");
  tests::Answer<Reply<>> ping;
  silent.onPing([ping](const Reply<>& reply) mutable { ping.come(reply); });
  const auto checked_in = caller().checkIn("silent", silent.endpoint(), {});
  const auto pong = ping.await();
  tests::Answer<bool> written;
  caller().proxy().clientSetState(false, KELVANE_CACHE_ENABLED, [written]() mutable { written.come(true); });
  EXPECT_TRUE(written.await());
  EXPECT_FALSE(checked_in.hasCome());
  EXPECT_EQ(it.connectionsOpened(), 0);
  pong();
  it.awaitNotifications(1);
  EXPECT_EQ(it.notifications().at(0), (Dictionary{{KELVANE_CACHE_ENABLED, false}}));
}

}  // namespace
}  // namespace kelvane
