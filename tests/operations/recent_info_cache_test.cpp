// Which figures of the record are counted, who must be asked, and what an answer does to the record.

#include <gtest/gtest.h>
#include <limits>

#include "platform/dispatch/suspension.h"
#include "tests/operations/purgeable_fixture.h"

namespace kelvane {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

class RecentInfoCache : public tests::PurgeableFixture {
 protected:
  Dictionary cached() { return operation()->cachedInfo(info()); }
  static Dictionary cachedAs(const Array& to_query, const Dictionary& to_count) {
    return {{KELVANE_SERVICES_TO_QUERY, to_query}, {KELVANE_SERVICES_TO_COUNT, to_count}};
  }
  void update(const std::string& ID, const Value& amount) {
    operation()->updateServiceStats(ID, {{KELVANE_AMOUNT, amount}, {KELVANE_VOLUME, "/data"}});
    dispatch_sync(state_->defaults_queue(), [] {});
  }
};

TEST_F(RecentInfoCache, AnInfoWithoutAVolumeReadsNoRecordCountsNothingAndStoresNothing) {
  service("one");
  service("two");
  remember({{"one", figure(5)}});
  clock_.advance(121 * second);  // what is there would be removed if anybody looked
  EXPECT_EQ(operation()->cachedInfo({}), cachedAs({"one", "two"}, {}));
  EXPECT_EQ(state_->reads(), 0);
  EXPECT_EQ(state_->writes(), 0);
  EXPECT_NE(state_->record(), nullptr);
}

TEST_F(RecentInfoCache, WithoutARecordEverybodyIsAskedAndTheFirstAnswerMakesOneWithOneVolumeAndOneService) {
  service("one");
  service("two");
  EXPECT_EQ(cached(), cachedAs({"one", "two"}, {}));
  EXPECT_EQ(state_->writes(), 0);
  update("one", 5);
  ASSERT_NE(state_->record(), nullptr);
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/data", volume({{"one", figure(5)}})}}));
  EXPECT_TRUE(log_.contains(5,
                            "updateServiceStats:withInfo: ^^^ENTRY, serviceID: one : "
                            "{KELVANE_AMOUNT = 5; KELVANE_VOLUME = \"/data\";}, recentInfo: (null)"));
}

TEST_F(RecentInfoCache, AnAmountThatIsNoNumberAndLargeIsNotKeptAndTheLogSaysSo) {
  service("one");
  update("one", 5);
  update("one", std::string(2000, 'x'));
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/data", volume({{"one", figure(5)}})}}));
  EXPECT_EQ(log_.count(3, "updateServiceStats:withInfo: one answered with an amount that takes "), 1U);
  update("one", "small");
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/data", volume({{"one", figure("small")}})}}));
}

TEST_F(RecentInfoCache, ARecordWithoutTheVolumeCountsNothingAndIsStoredWhenValidationChangedIt) {
  service("one");
  volumes_.add("/other", {1000, 2000, 0, 0});
  const auto old = figure(1);
  clock_.advance(121 * second);
  state_->set(KelvaneRecentInfo::kelvaneRecentInfo(
      {{"/other", volume({{"one", figure(2)}, {"two", old}}, "/other")}}));
  EXPECT_EQ(cached(), cachedAs({"one"}, {}));
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/other", volume({{"one", figure(2)}}, "/other")}}));
  EXPECT_EQ(log_.count(5, "cachedInfo: Recent Info need syncing. New values: {\"/other\" = "), 1U);
}

TEST_F(RecentInfoCache, ARecordWithoutTheVolumeIsRemovedWhenValidationFindsNothingInIt) {
  service("one");
  volumes_.add("/other", {1000, 2000, 0, 0});
  state_->set(KelvaneRecentInfo::kelvaneRecentInfo({{"/other", volume({{"one", figure(2)}}, "/other")}}));
  clock_.advance(121 * second);
  EXPECT_EQ(cached(), cachedAs({"one"}, {}));
  EXPECT_EQ(state_->raw(), Value());
  EXPECT_EQ(log_.count(5, "cachedInfo: Recent Info is invalid, deleting..."), 1U);
}

TEST_F(RecentInfoCache, WhenEveryKeptServiceIsCachedNobodyIsToBeAsked) {
  service("one");
  remember({{"one", figure(5)}});
  EXPECT_EQ(cached(), cachedAs({}, {{"one", 5}}));
  EXPECT_EQ(log_.count(5, "cachedInfo: using all cached info"), 1U);
  EXPECT_EQ(log_.count(5, "cachedInfo: servicesToCount: {one = 5;}"), 1U);
  EXPECT_EQ(log_.count("servicesToQuery"), 0U);
  EXPECT_EQ(state_->writes(), 0);
}

TEST_F(RecentInfoCache, AServiceThatIsCachedButNoLongerKeptIsStillCounted) {
  service("kept");
  remember({{"gone", figure(5)}, {"kept", figure(6)}});
  EXPECT_EQ(cached(), cachedAs({}, {{"gone", 5}, {"kept", 6}}));
}

TEST_F(RecentInfoCache, ANilAnswerRecordedAsZeroIsCountedAsZeroUntilValidationDropsIt) {
  service("one").answersPurgeable(std::nullopt);
  EXPECT_EQ(ask()["one"], Value(0));
  clock_.advance(120 * second);
  EXPECT_EQ(cached(), cachedAs({}, {{"one", 0}}));
  clock_.advance(second);
  EXPECT_EQ(cached(), cachedAs({"one"}, {}));
  EXPECT_EQ(log_.count(5, "cachedInfo: servicesToQuery: (\"one\")"), 2U);
}

TEST_F(RecentInfoCache, EveryAnswerOfAnyServiceRefreshesTheVolumesFreeSpaceAndTimestamp) {
  remember({{"one", figure(5)}});
  const auto first = figure(5);
  clock_.advance(10 * second);
  volumes_.setSpace("/data", VolumeSpace{900, 2000, 0, 0});
  update("two", 6);
  const auto record = state_->record();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->volumes().at("/data"),
            KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo({{"one", first}, {"two", figure(6)}}, 900,
                                                             currentDate(), "/data"));
}

TEST_F(RecentInfoCache, AnAnswerOnAnotherVolumeLeavesTheFirstAsItWas) {
  volumes_.add("/other", {1000, 2000, 0, 0});
  remember({{"one", figure(5)}});
  operation()->updateServiceStats("one", {{KELVANE_AMOUNT, 6}, {KELVANE_VOLUME, "/other"}});
  dispatch_sync(state_->defaults_queue(), [] {});
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/data", volume({{"one", figure(5)}})},
                                                  {"/other", volume({{"one", figure(6)}}, "/other")}}));
}

TEST_F(RecentInfoCache, AnEntryWithoutAnAmountOrAVolumeChangesNothing) {
  operation()->updateServiceStats("one", {{KELVANE_VOLUME, "/data"}});
  operation()->updateServiceStats("one", {{KELVANE_AMOUNT, 5}});
  operation()->updateServiceStats("one", {{KELVANE_AMOUNT, 5}, {KELVANE_VOLUME, 1}});
  EXPECT_EQ(state_->writes(), 0);
}

TEST_F(RecentInfoCache, WhatIsNoRecordUnderItsKeyIsPassedOverAndReplacedByTheNextAnswer) {
  service("one");
  using namespace std::string_literals;
  const std::string billion = "KVR\x01\x80\x94\xeb\xdc\x03";
  for (const Value& stored :
       {Value("text"), Value(5), Value(Dictionary{{"volumes", Dictionary()}}), Value(Data({1, 2, 3})),
        Value(archivedData(Value(Dictionary{{"a", 1}}))), Value(Data({billion.begin(), billion.end()}))}) {
    state_->set(stored);
    EXPECT_EQ(cached(), cachedAs({"one"}, {}));
    EXPECT_EQ(state_->raw(), stored);
    update("one", 7);
    EXPECT_EQ(cached(), cachedAs({}, {{"one", 7}}));
  }
}

TEST_F(RecentInfoCache, AnswersThatWaitTogetherAreRecordedInTheirOrderAndTheFreeSpaceIsReadOnceForAll) {
  state_->set(Value());
  const int reads_before_one = volumes_.timesSpaceRead();
  update("alone", 1);
  const int reads_of_one = volumes_.timesSpaceRead() - reads_before_one;
  const int writes_before = state_->writes();
  const auto it = operation();
  {
    const Suspension suspension(state_->defaults_queue());
    for (const auto& [ID, amount] : std::vector<std::pair<std::string, int>>{{"a", 5}, {"b", 6}, {"a", 7}})
      it->updateServiceStats(ID, {{KELVANE_AMOUNT, amount}, {KELVANE_VOLUME, "/data"}});
  }
  dispatch_sync(state_->defaults_queue(), [] {});
  EXPECT_EQ(
      *state_->record(),
      KelvaneRecentInfo({{"/data", volume({{"alone", figure(1)}, {"a", figure(7)}, {"b", figure(6)}})}}));
  EXPECT_EQ(volumes_.timesSpaceRead() - reads_before_one, 2 * reads_of_one);
  EXPECT_EQ(state_->writes() - writes_before, 3 + 1);  // each answer, and the record that was validated last
  EXPECT_EQ(log_.count(5, "updateServiceStats:withInfo: ^^^ENTRY, serviceID: a : {KELVANE_AMOUNT = "), 2U);
}

TEST_F(RecentInfoCache, OutdatedFiguresAreRemovedFromWhatAnAnswerStores) {
  remember({{"old", figure(1)}});
  clock_.advance(121 * second);
  update("fresh", 2);
  EXPECT_EQ(*state_->record(), KelvaneRecentInfo({{"/data", volume({{"fresh", figure(2)}})}}));
}

TEST_F(RecentInfoCache, AnUpdateQueuedBeforeIsSeenByTheReadingThatFollows) {
  const auto it = operation();
  for (int i = 0; i < 100; ++i)
    it->updateServiceStats("s" + std::to_string(i), {{KELVANE_AMOUNT, i}, {KELVANE_VOLUME, "/data"}});
  EXPECT_EQ(it->cachedInfo(info())[KELVANE_SERVICES_TO_COUNT].dictionary()->size(), 100U);
}

}  // namespace
}  // namespace kelvane
