#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <thread>

#include "interface/limits.h"
#include "platform/foundation/archive.h"
#include "platform/foundation/user_defaults.h"
#include "platform/xpc/wire.h"
#include "support/statistics.h"
#include "tests/foundation/faulty_vfs.h"
#include "tests/interface/interface_fixture.h"
#include "tests/support/scoped_environment.h"

namespace kelvane {
namespace {

using tests::Answer;
using tests::Caller;
using tests::FakeService;

// With the whole state around it.
constexpr int deepest = static_cast<int>(xpc::most_nested) - 1;

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
  /// The error that a client gets for writing this; empty if it is stored.
  std::string written(const std::string& key, const Value& value) {
    Caller& process = caller();
    Answer<bool> stored;
    process.proxy().clientSetState(value, key, [stored]() mutable { stored.come(true); });
    Answer<Value> read_after;  // is answered later
    process.proxy().clientGetState(xpc::Anything{key},
                                   [read_after](const Value& now) mutable { read_after.come(now); });
    read_after.await();
    if (stored.hasCome()) return "";
    EXPECT_EQ(process.error().await(), expected_error_);
    return process.failure();
  }
  std::string expected_error_ = xpc::error_limits_exceeded;

  StateObject readObject(const std::string& key) {
    return dispatch_sync(registry_->defaults_queue(), [&] { return registry_->clientGetStateSync(key); });
  }
  Value readSync(const std::string& key) { return std::get<Value>(readObject(key)); }
  static Value nested(int arrays) {
    Value value = "bottom";
    for (int array = 0; array < arrays; ++array) value = Array{value};
    return value;
  }
  std::shared_ptr<UserDefaults> openAgain() {
    return UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
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
  EXPECT_EQ(openAgain()->objectForKey(KELVANE_USER_DEFAULTS), Value(Dictionary()));
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

TEST_F(StateStore, AWriteOverWhatIsNoDictionaryBeginsTheStateAnew) {
  registry_->user_defaults_->setObject(Array{1, 2}, KELVANE_USER_DEFAULTS);
  write("v", "k");
  EXPECT_EQ(registry_->user_defaults_->objectForKey(KELVANE_USER_DEFAULTS), Value(Dictionary{{"k", "v"}}));
  EXPECT_EQ(log_.count(3, ""), 0u);
}

TEST_F(StateStore, AValueThatNestsTooDeepForTheWholeStateToTravelIsNotTakenAndSaidSo) {
  write(nested(deepest), "k");
  EXPECT_EQ(log_.count(3, ""), 0u);
  write(nested(deepest + 1), "k");
  EXPECT_EQ(log_.count(3,
                       "_clientSetState:key:replyBlock: unable to keep the value for key: k: the value nests "
                       "deeper than 19 arrays and dictionaries"),
            1u);
  EXPECT_EQ(read("k"), nested(deepest));
}

TEST_F(StateStore, AValueThatNestsTooDeepIsRefusedWithAnErrorAndToldToNobody) {
  FakeService& wanting = registered("wanting");
  record("wanting")->setDesiredNotifications(std::set<std::string>{KELVANE_CACHE_ENABLED});
  EXPECT_EQ(written(KELVANE_CACHE_ENABLED, nested(deepest)), "");
  wanting.awaitNotifications(1);
  EXPECT_EQ(written(KELVANE_CACHE_ENABLED, nested(deepest + 1)),
            "the value nests deeper than 19 arrays and dictionaries");
  write(nested(deepest + 1), KELVANE_CACHE_ENABLED);
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), nested(deepest));
  write(false, KELVANE_CACHE_ENABLED);
  wanting.awaitNotifications(2);
  EXPECT_EQ(wanting.notifications()[1], (Dictionary{{KELVANE_CACHE_ENABLED, false}}));
}

// --- values stored by others, and the order of events ---

TEST_F(StateStore, AReadTakesInWhatAnotherProcessStored) {
  write(1, "k");
  ASSERT_TRUE(openAgain()->setEntry(2, "k", KELVANE_USER_DEFAULTS));
  EXPECT_EQ(read("k"), Value(2));
}

TEST_F(StateStore, AWriteTakesInWhatAnotherProcessStoredAndIsInTheFileWhenItIsAnswered) {
  write(1, "k");
  ASSERT_TRUE(openAgain()->setEntry(2, "theirs", KELVANE_USER_DEFAULTS));
  Answer<Value> in_the_file;
  registry_->clientSetState(3, "k", [this, in_the_file]() mutable {
    in_the_file.come(openAgain()->objectForKey(KELVANE_USER_DEFAULTS));
  });
  EXPECT_EQ(in_the_file.await(), Value(Dictionary{{"k", 3}, {"theirs", 2}}));
}

TEST_F(StateStore, TheNotificationIsOnItsWayWhenTheWriteIsAnswered) {
  Answer<std::size_t> lines;
  registry_->clientSetState(false, KELVANE_CACHE_ENABLED, [this, lines]() mutable {
    lines.come(log_.count(5, "notifyRecipients:value: name: KELVANE_CACHE_ENABLED, value: false") +
               log_.count(5, "notifyRecipients:value: name: KELVANE_CACHE_ENABLED, value: 0"));
  });
  EXPECT_EQ(lines.await(), 1u);
}

TEST_F(StateStore, RemovingCacheEnabledIsNotifiedAsWell) {
  FakeService& wanting = registered("wanting");
  record("wanting")->setDesiredNotifications(std::set<std::string>{KELVANE_CACHE_ENABLED});
  write(Value(), KELVANE_CACHE_ENABLED);
  wanting.awaitNotifications(1);
  EXPECT_EQ(wanting.notifications(), (std::vector<Dictionary>{{}}));
}

TEST_F(StateStore, RemovingAKeyOnAFreshStoreBeginsTheState) {
  write(Value(), "k");
  EXPECT_EQ(read(KELVANE_USER_DEFAULTS), Value(Dictionary{{KELVANE_CACHE_ENABLED, true}}));
  EXPECT_EQ(openAgain()->objectForKey(KELVANE_USER_DEFAULTS), Value(Dictionary()));
}

TEST_F(StateStore, ADamagedValueIsReadAsItsDefaultAndNamed) {
  write(false, KELVANE_CACHE_ENABLED);
  write("sound", "k");
  registry_->user_defaults_ = nullptr;
  sqlite3* opened = nullptr;
  ASSERT_EQ(sqlite3_open((directory_ / "com.orvel.kelvane.db").c_str(), &opened), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(opened,
                         "UPDATE entries SET value=substr(value,1,length(value)-1)||x'02' "
                         "WHERE CAST(entry AS TEXT)='KELVANE_CACHE_ENABLED'",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(opened);
  registry_->user_defaults_ = openAgain();
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
  EXPECT_EQ(read("k"), Value("sound"));
  EXPECT_EQ(
      log_.count(3, "_clientSetState:key:replyBlock: state file " + (directory_ / "com.orvel.kelvane.db") +
                        ": the value for \"KELVANE_CACHE_ENABLED\" is damaged and is left out"),
      1u);
}

TEST_F(StateStore, AWholeStateThatNoMessageHoldsIsRefusedWithAnError) {
  Dictionary state;
  const std::string large(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 33; ++i) state.set(std::to_string(i), large);
  registry_->user_defaults_->setObject(state, KELVANE_USER_DEFAULTS);
  Caller& process = caller();
  process.proxy().clientGetState(xpc::Anything{KELVANE_USER_DEFAULTS},
                                 [](const Value&) { ADD_FAILURE() << "it was answered"; });
  EXPECT_EQ(process.error().await(), xpc::error_limits_exceeded);
  EXPECT_EQ(read("0"), Value(large));
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

// --- a volume that accepts no writes ---

class UnwritableStateStore : public StateStore {
 protected:
  UnwritableStateStore() {
    registry_->user_defaults_ = UserDefaults::initWithSuiteName(
        "com.orvel.kelvane", directory_.path(), {.recreatable = {}, .vfs = test::FaultyVFS::name});
    forgetStatistics();
    write(1, "k");
    vfs_.write_result = SQLITE_FULL;
    expected_error_ = xpc::error_failed;
  }

  [[nodiscard]] std::string reason() {
    return (directory_ / "com.orvel.kelvane.db") + ": database or disk is full";
  }
  test::FaultyVFS vfs_;
};

TEST_F(UnwritableStateStore, RefusesAWriteWithTheReasonAndKeepsWhatItHad) {
  EXPECT_EQ(written("k", 2), "the value is not kept: " + reason());
  EXPECT_EQ(written("other", 2), "the value is not kept: " + reason());
  EXPECT_EQ(read("k"), Value(1));
  EXPECT_EQ(read("other"), Value());
  EXPECT_EQ(log_.count(3, "_clientSetState:key:replyBlock: unable to keep the value for key: k: " + reason()),
            1u);
  EXPECT_EQ(statisticsOf(kelvane_domain).counters.at("KV_STATE_NOT_KEPT"), 2);
  vfs_.write_result = SQLITE_OK;
  EXPECT_EQ(written("k", 3), "");
  EXPECT_EQ(read("k"), Value(3));
}

TEST_F(UnwritableStateStore, TellsNobodyOfWhatItRefuses) {
  EXPECT_NE(written(KELVANE_CACHE_ENABLED, false), "");
  EXPECT_FALSE(log_.contains("notifyRecipients:value:"));
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
}

TEST_F(UnwritableStateStore, ServesARecordThatItCouldNotWriteAndWritesItLater) {
  const auto record_of = [](std::uint64_t amount) {
    return KelvaneRecentInfo::kelvaneRecentInfo(
        {{"/data", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                       {{"one", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, Date{5})}}, 1000,
                       Date{6}, "/data")}});
  };
  for (const std::uint64_t amount : {7, 8}) {
    dispatch_sync(registry_->defaults_queue(), [&] {
      registry_->clientSetStateSync(record_of(amount), KELVANE_RECENT_SERVICE_STATS);
      registry_->settleState();
    });
    EXPECT_EQ(read(KELVANE_RECENT_SERVICE_STATS), Value(archivedData(*record_of(amount))));
  }
  EXPECT_EQ(statisticsOf(kelvane_domain).counters.at("KV_STATE_NOT_KEPT"), 1);  // logged once
  EXPECT_TRUE(openAgain()->objectForKey(KELVANE_USER_DEFAULTS) == Value(Dictionary{{"k", 1}}));
  vfs_.write_result = SQLITE_OK;
  read("k");
  const Value state = openAgain()->objectForKey(KELVANE_USER_DEFAULTS);
  EXPECT_EQ((*state.dictionary())[KELVANE_RECENT_SERVICE_STATS], Value(archivedData(*record_of(8))));
}

// --- the recent-info record ---

class RecordStore : public StateStore {
 protected:
  static std::shared_ptr<KelvaneRecentInfo> recordOf(std::uint64_t amount) {
    return KelvaneRecentInfo::kelvaneRecentInfo(
        {{"/data", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                       {{"one", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, Date{5})}}, 1000,
                       Date{6}, "/data")}});
  }
  static const std::shared_ptr<KelvaneRecentInfo>& recordIn(const StateObject& object) {
    return std::get<std::shared_ptr<KelvaneRecentInfo>>(object);
  }
  void writeRecord(std::uint64_t amount, const std::string& key = KELVANE_RECENT_SERVICE_STATS) {
    dispatch_sync(registry_->defaults_queue(), [&] { registry_->clientSetStateSync(recordOf(amount), key); });
  }
  void settle() {
    dispatch_sync(registry_->defaults_queue(), [&] { registry_->settleState(); });
  }
  Value inTheFile() {
    const auto again = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
    const Value state = again->objectForKey(KELVANE_USER_DEFAULTS);
    return state.isDictionary() ? (*state.dictionary())[KELVANE_RECENT_SERVICE_STATS] : Value();
  }
};

TEST_F(RecordStore, ARecordComesBackAsARecordFromTheBlockingReaderAndAsItsArchiveFromTheRemoteOne) {
  writeRecord(7);
  EXPECT_EQ(*recordIn(readObject(KELVANE_RECENT_SERVICE_STATS)), *recordOf(7));
  EXPECT_EQ(read(KELVANE_RECENT_SERVICE_STATS), Value(archivedData(*recordOf(7))));
  EXPECT_EQ(*recordIn(readObject(KELVANE_RECENT_SERVICE_STATS)), *recordOf(7));
}

TEST_F(RecordStore, ARecordInTheFileIsRebuiltFromItsArchive) {
  write(archivedData(*recordOf(8)), KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(*recordIn(readObject(KELVANE_RECENT_SERVICE_STATS)), *recordOf(8));
}

TEST_F(RecordStore, ARecordWrittenAndReadWithTheBlockingFormsIsRebuiltFromItsArchive) {
  const auto written = recordOf(9);
  dispatch_sync(registry_->defaults_queue(), [&] { registry_->clientSetStateSync(written, "another"); });
  const StateObject read_again = readObject("another");
  EXPECT_NE(recordIn(read_again), written);
  EXPECT_EQ(*recordIn(read_again), *written);
}

TEST_F(RecordStore, ARecordIsInTheFileOnceTheStateIsSettledOrAnybodyElseHasUsedIt) {
  writeRecord(1);
  settle();
  EXPECT_EQ(inTheFile(), Value(archivedData(*recordOf(1))));
  writeRecord(2);
  read("other");
  EXPECT_EQ(inTheFile(), Value(archivedData(*recordOf(2))));
  writeRecord(3);
  write(1, "other");
  EXPECT_EQ(inTheFile(), Value(archivedData(*recordOf(3))));
}

TEST_F(RecordStore, AnyKeyTakesARecordAndTheWholeStateShowsIt) {
  writeRecord(1);
  writeRecord(2, "another");
  const Value whole = read(KELVANE_USER_DEFAULTS);
  EXPECT_EQ((*whole.dictionary())[KELVANE_RECENT_SERVICE_STATS], Value(archivedData(*recordOf(1))));
  EXPECT_EQ((*whole.dictionary())["another"], Value(archivedData(*recordOf(2))));
}

TEST_F(RecordStore, AClientThatWritesUnderTheRecordsKeyReplacesIt) {
  const Data archive = archivedData(*recordOf(1));
  writeRecord(1);
  read(KELVANE_RECENT_SERVICE_STATS);
  write("text", KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(readSync(KELVANE_RECENT_SERVICE_STATS), Value("text"));
  write(Data({1, 2, 3}), KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(readSync(KELVANE_RECENT_SERVICE_STATS), Value());
  write(Value(), KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(readSync(KELVANE_RECENT_SERVICE_STATS), Value());
  write(archive, KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(*recordIn(readObject(KELVANE_RECENT_SERVICE_STATS)), *recordOf(1));
}

TEST_F(RecordStore, ARecordThatWasEmptiedAndRemovedDoesNotComeBackWhenItsArchiveDoes) {
  const Data archive = archivedData(*recordOf(1));
  write(archive, KELVANE_RECENT_SERVICE_STATS);
  recordIn(readObject(KELVANE_RECENT_SERVICE_STATS))->setVolumes({});
  dispatch_sync(registry_->defaults_queue(),
                [&] { registry_->clientSetStateSync(Value(), KELVANE_RECENT_SERVICE_STATS); });
  write(archive, KELVANE_RECENT_SERVICE_STATS);
  EXPECT_EQ(*recordIn(readObject(KELVANE_RECENT_SERVICE_STATS)), *recordOf(1));
}

TEST_F(RecordStore, ReadingAnUnwrittenRecordLogsAsAnyOtherReading) {
  writeRecord(1);
  log_.clear();
  readObject(KELVANE_RECENT_SERVICE_STATS);
  for (const char* line : {"clientGetStateSync: ENTRY", "clientGetStateSync: 641", "clientGetStateSync: EXIT",
                           "_clientGetState:replyBlock: ENTRY", "_clientGetState:replyBlock: EXIT"})
    EXPECT_EQ(log_.count(5, line), 1u) << line;
}

// --- values ---

TEST_F(StateStore, ValuesOfEveryTypeComeBackAsTheyWere) {
  Value deep = "innermost";
  for (int i = 0; i < deepest; ++i) deep = i % 2 == 0 ? Value(Array{deep}) : Value(Dictionary{{"k", deep}});
  const std::vector<Value> values = {true,
                                     0,
                                     -1,
                                     std::uint64_t{~0ULL},
                                     1.5,
                                     "",
                                     "text",
                                     Data(),
                                     Data({0}),
                                     Date{-1},
                                     Array{},
                                     Array{1, Array{"two"}},
                                     Dictionary(),
                                     deep,
                                     std::string(10 << 20, 'x')};
  for (const Value& value : values) {
    write(value, "k");
    const Value back = read("k");
    EXPECT_TRUE(back == value) << value.description().substr(0, 100);
    EXPECT_EQ(back.held().index(), value.held().index());
  }
}

TEST_F(StateStore, AnEmptyKeyIsAKeyLikeAnyOther) {
  write(5, "");
  EXPECT_EQ(read(""), Value(5));
  EXPECT_EQ(read(KELVANE_CACHE_ENABLED), Value(true));
}

TEST_F(StateStore, AValueUnderTheReservedKeyIsStoredAndSeenOnlyWithinTheWholeState) {
  write(5, KELVANE_USER_DEFAULTS);
  EXPECT_EQ(read(KELVANE_USER_DEFAULTS),
            Value(Dictionary{{KELVANE_USER_DEFAULTS, 5}, {KELVANE_CACHE_ENABLED, true}}));
}

TEST_F(StateStore, AValueThatNestsTooDeepToBeStoredLeavesWhatWasThere) {
  Value deep = 1;
  for (int i = 0; i < 100'000; ++i) deep = Array{deep};
  write("before", "k");
  write(deep, "k");
  EXPECT_EQ(read("k"), Value("before"));
  while (deep.array() != nullptr && !deep.array()->empty()) deep = Value((*deep.array())[0]);
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

TEST_F(StateStore, ThatCouldNotBeOpenedRefusesWritesAndTellsNobody) {
  forgetStatistics();
  registry_->user_defaults_ = nullptr;
  expected_error_ = xpc::error_failed;
  EXPECT_EQ(written(KELVANE_CACHE_ENABLED, false), "the value is not kept: the state could not be opened");
  EXPECT_EQ(log_.count(3,
                       "_clientSetState:key:replyBlock: unable to keep the value for key: "
                       "KELVANE_CACHE_ENABLED: the state could not be opened"),
            1u);
  EXPECT_FALSE(log_.contains("notifyRecipients:value:"));
  EXPECT_EQ(statisticsOf(kelvane_domain).counters.at("KV_STATE_NOT_KEPT"), 1);
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

TEST_F(StateStore, AValueThatTakesMoreThanAMebibyteIsRefusedAndWhatWasThereStays) {
  EXPECT_EQ(written("k", 1), "");
  EXPECT_EQ(written("k", std::string((1U << 20) - 1024, 'x')), "");
  EXPECT_THAT(
      written("k", std::string(1U << 20, 'x')),
      testing::MatchesRegex("the value and its key take [0-9]+ bytes of memory: expected at most 1048576"));
  EXPECT_EQ(read("k"), Value(std::string((1U << 20) - 1024, 'x')));
  EXPECT_NE(written(std::string(1U << 20, 'k'), 1), "");
}

TEST_F(StateStore, AFullStateTakesNothingMoreButWhatMakesItSmaller) {
  const std::string large((1U << 20) - 1024, 'x');
  const auto key = [](int i) { return "key" + std::to_string(i); };
  int stored = 0;
  while (stored < 100 && written(key(stored), large).empty()) ++stored;
  // The tests' user is a privileged one.
  EXPECT_EQ(stored, static_cast<int>(largest_privileged_state / large.size()));
  EXPECT_THAT(written("other", large), testing::HasSubstr("would exceed the limit of 20971520"));
  EXPECT_EQ(read("other"), Value());
  EXPECT_EQ(written(key(0), "small"), "");
  EXPECT_EQ(written(key(1), Value()), "");
  EXPECT_EQ(written("other", large), "");
}

TEST_F(StateStore, OutsideItsQueueItStopsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const tests::ScopedEnvironment inside("TMPDIR", directory_.path());  // what the dying leave
  EXPECT_DEATH(registry_->_clientSetState(1, "k", [] {}), "running outside the queue that this needs");
  EXPECT_DEATH(registry_->_clientGetState("k", [](const Value&) {}),
               "running outside the queue that this needs");
}

}  // namespace
}  // namespace kelvane
