#include <gtest/gtest.h>
#include <thread>

#include "platform/foundation/archive.h"
#include "platform/foundation/user_defaults.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Answer;
using tests::FakeService;

class StateStore : public tests::InterfaceFixture {
 protected:
  StateStore() {
    registry_->user_defaults_ = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
  }

  void write(const Value& value, const std::string& key) {
    Answer<bool> written;
    registry_->clientSetState(value, key, [written]() mutable { written.come(true); });
    written.await();
  }
  Value read(const Value& key) {
    Answer<Value> answer;
    registry_->clientGetState(xpc::Anything{key},
                              [answer](const Value& value) mutable { answer.come(value); });
    Value value = answer.await();
    dispatch_sync(registry_->defaults_queue(), [] {});  // the read's last line comes after its answer
    return value;
  }
  Value readSync(const std::string& key) {
    return dispatch_sync(registry_->defaults_queue(), [&] { return registry_->clientGetStateSync(key); });
  }
};

TEST_F(StateStore, ReadingCacheEnabledOnAFreshStoreRepliesTrueWithoutALogLine) {
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
  EXPECT_FALSE(log_.contains("using default value"));
}

TEST_F(StateStore, AfterAValueHasBeenStoredButWithoutThatKeyTheSameReadLogsTheDefaultAndRepliesTrue) {
  write(5, "other");
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
  EXPECT_EQ(
      log_.count(5, "_clientGetState:replyBlock: using default value: 1 for key: KELVANE_CACHE_ENABLED") +
          log_.count(5,
                     "_clientGetState:replyBlock: using default value: true for key: KELVANE_CACHE_ENABLED"),
      1u);
}

TEST_F(StateStore, WritingNothingRemovesTheKeyAndALaterReadFallsBackToTheDefault) {
  write(false, KELVANE_CACHE_ENABLED);
  write(7, "other");
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(false));
  write(Value(), KELVANE_CACHE_ENABLED);
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
  write(Value(), "other");
  EXPECT_EQ(read("other"), Value());
}

TEST_F(StateStore, ReadingTheReservedKeyRepliesTheWholeStateWithTheDefaultAddedAndOnAFreshStoreNothing) {
  EXPECT_EQ(read(KELVANE_USER_DEFAULTS), Value());
  write("v", "k");
  EXPECT_EQ(read(KELVANE_USER_DEFAULTS), Value(Dictionary{{"k", "v"}, {KELVANE_CACHE_ENABLED, true}}));
  EXPECT_FALSE(log_.contains("using default value"));
}

TEST_F(StateStore, WritingCacheEnabledNotifiesEveryServiceThatWantsItAndWritingAnyOtherKeyNobody) {
  FakeService& wanting = registered("wanting");
  FakeService& other = registered("other");
  record("wanting")->setDesiredNotifications(std::set<std::string>{KELVANE_CACHE_ENABLED, "k"});
  write(1, "k");
  write(false, KELVANE_CACHE_ENABLED);
  wanting.awaitNotifications(1);
  log_.await("notifyRecipients:value: connection invalidated");
  EXPECT_EQ(wanting.notifications(), (std::vector<Dictionary>{{{KELVANE_CACHE_ENABLED, false}}}));
  EXPECT_EQ(other.connectionsOpened(), 0);
}

TEST_F(StateStore, ANonStringKeyOnReadRepliesNothing) {
  EXPECT_EQ(read(5), Value());
  EXPECT_EQ(log_.count(3, "_clientGetState:replyBlock: key is not an NSString: 5"), 1u);
  EXPECT_EQ(log_.count(5, "_clientGetState:replyBlock: ENTRY"), 1u);
  EXPECT_EQ(log_.count(5, "_clientGetState:replyBlock: EXIT"), 1u);
}

TEST_F(StateStore, AnUnknownKeyRepliesNothingWithoutALogLine) {
  write(1, "k");
  EXPECT_EQ(read("unknown"), Value());
  EXPECT_EQ(log_.count(3, ""), 0u);
}

TEST_F(StateStore, AStoredObjectThatIsNoDictionaryIsNamedAndLeftAsItIs) {
  registry_->user_defaults_->setObject("text", KELVANE_USER_DEFAULTS);
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value());
  EXPECT_EQ(log_.count(3, "_clientGetState:replyBlock: persistent_state is not a dictionary: text"), 1u);
  EXPECT_EQ(registry_->user_defaults_->objectForKey(KELVANE_USER_DEFAULTS), Value("text"));
}

TEST_F(StateStore, WhatWasWrittenIsThereForWhoeverOpensTheSuiteNext) {
  write(Dictionary{{"deep", Array{1, "two"}}}, "k");
  const auto again = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
  EXPECT_EQ(again->objectForKey(KELVANE_USER_DEFAULTS),
            Value(Dictionary{{"k", Dictionary{{"deep", Array{1, "two"}}}}}));
}

TEST_F(StateStore, OnlyTheBlockingReaderTurnsDataBackIntoAnObject) {
  const Data archive = archivedData(Dictionary{{"a", 1}});
  write(archive, "archive");
  write(Data({1, 2, 3}), "raw");
  EXPECT_EQ(read("archive"), Value(archive));
  EXPECT_EQ(readSync("archive"), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(readSync("raw"), Value());
  EXPECT_TRUE(log_.contains(5, "clientGetStateSync: ENTRY"));
  EXPECT_TRUE(log_.contains(5, "clientGetStateSync: 641"));
  EXPECT_TRUE(log_.contains(5, "clientGetStateSync: EXIT"));
}

TEST_F(StateStore, TheBlockingWriterStoresAnyOtherValueAsItIs) {
  dispatch_sync(registry_->defaults_queue(), [&] { registry_->clientSetStateSync(Array{1}, "k"); });
  EXPECT_EQ(read("k"), Value(Array{1}));
  EXPECT_EQ(readSync("k"), Value(Array{1}));
}

TEST_F(StateStore, ThatCouldNotBeOpenedKeepsNothingAndReadsTheDefaults) {
  registry_->user_defaults_ = nullptr;
  write(5, "k");
  EXPECT_EQ(read("k"), Value());
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
}

TEST_F(StateStore, IsReachedOverTheWire) {
  auto& proxy = caller().proxy();
  Answer<bool> written;
  proxy.clientSetState(Array{1, 2}, "k", [written]() mutable { written.come(true); });
  written.await();
  Answer<Value> got;
  proxy.clientGetState(xpc::Anything{"k"}, [got](const Value& value) mutable { got.come(value); });
  EXPECT_EQ(got.await(), Value(Array{1, 2}));
}

TEST_F(StateStore, OutsideItsQueueItStopsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(registry_->_clientSetState(1, "k", [] {}), "running outside the queue that this needs");
  EXPECT_DEATH(registry_->_clientGetState("k", [](const Value&) {}),
               "running outside the queue that this needs");
}

}  // namespace
}  // namespace kelvane
