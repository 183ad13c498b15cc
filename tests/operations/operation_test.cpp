#include "operations/operation.h"

#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>

#include "common/keys.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane {
namespace {

using tests::FakeVolumes;
using tests::LogCapture;

class OperationBase : public testing::Test {
 protected:
  OperationBase() { volumes_.add("/data"); }

  static std::shared_ptr<KVService> service(const std::string& ID) { return std::make_shared<KVService>(ID); }
  static std::int32_t limitFor(std::initializer_list<std::pair<std::string_view, Value>> keys) {
    Dictionary info(keys);
    info.set(KELVANE_VOLUME, "/data");
    return KelvaneOperation::initWithInfo(info, {})->urgencyLimit();
  }
  static std::shared_ptr<KelvaneOperation> operation() {
    return KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}}, {});
  }

  LogCapture log_;
  FakeVolumes volumes_;
};

TEST_F(OperationBase, AnInfoThatIsAnArrayYieldsNoOperation) {
  EXPECT_EQ(KelvaneOperation::initWithInfo(Array{KELVANE_VOLUME, "/data"}, {}), nullptr);
  EXPECT_EQ(log_.count(3, "initWithInfo:services: info is not a dictionary!"), 1u);
}

TEST_F(OperationBase, AnInfoThatIsNothingYieldsNoOperation) {
  EXPECT_EQ(KelvaneOperation::initWithInfo(Value(), {}), nullptr);
  EXPECT_TRUE(log_.contains(3, "initWithInfo:services: info is not a dictionary!"));
}

TEST_F(OperationBase, SoDoesAnInfoWhoseVolumeIsANumber) {
  EXPECT_EQ(KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, 1}}, {}), nullptr);
  EXPECT_EQ(log_.count(3, "initWithInfo:services: No Volume key in info: {KELVANE_VOLUME = 1;}"), 1u);
}

TEST_F(OperationBase, AnInfoWithoutAVolumeYieldsNoOperation) {
  EXPECT_EQ(KelvaneOperation::initWithInfo(Dictionary{{KELVANE_AMOUNT, 1}}, {}), nullptr);
  EXPECT_TRUE(log_.contains(3, "No Volume key in info: {KELVANE_AMOUNT = 1;}"));
}

TEST_F(OperationBase, AVolumeThatIsNotLocalYieldsNoOperation) {
  EXPECT_EQ(KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/elsewhere"}}, {}), nullptr);
  EXPECT_EQ(log_.count(3, "initWithInfo:services: Unable to validate volume: /elsewhere"), 1u);
}

TEST_F(OperationBase, TheFieldsStartAsTheInfoSays) {
  const Dictionary info{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, 5}};
  const auto operation = KelvaneOperation::initWithInfo(info, {{"a", service("a")}});
  ASSERT_NE(operation, nullptr);
  EXPECT_EQ(operation->info(), info);
  EXPECT_EQ(operation->result(), info);
  EXPECT_EQ(operation->volume(), "/data");
  EXPECT_EQ(operation->inFlightCount(), 0u);
  EXPECT_EQ(operation->services().size(), 1u);
  EXPECT_EQ(dispatch_queue_get_label(operation->collection_queue()),
            "com.orvel.kelvane_operation_collection");
  EXPECT_EQ(dispatch_queue_get_label(operation->message_queue()), "com.orvel.kelvane_operation_message");
  EXPECT_TRUE(log_.contains(5, "initWithInfo:services: services: {a = ();}"));
}

TEST_F(OperationBase, TheServicesAreLoggedWithWhatTheirRecordsSay) {
  const auto plain = service("plain");
  const auto every = service("every");
  every->setDoesPurge(true);
  every->setDoesPeriodic(true);
  every->setDoNotQuery(true);
  every->setNoQuota(true);
  const auto purging = service("purging");
  purging->setDoesPurge(true);
  const Services services{{"every", every}, {"plain", plain}, {"purging", purging}};
  const auto operation = KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}}, services);
  EXPECT_EQ(log_.count(5,
                       "initWithInfo:services: services: {every = (\"doesPurge\", \"doesPeriodic\", "
                       "\"doNotQuery\", \"noQuota\"); plain = (); purging = (\"doesPurge\");}"),
            1u);
}

// --- the urgency limit ---

TEST_F(OperationBase, UrgencyFourGivesLimitFour) { EXPECT_EQ(limitFor({{KELVANE_URGENCY, 4}}), 4); }
TEST_F(OperationBase, UrgencyFiveGivesLimitThree) { EXPECT_EQ(limitFor({{KELVANE_URGENCY, 5}}), 3); }
TEST_F(OperationBase, UrgencyZeroGivesLimitThree) { EXPECT_EQ(limitFor({{KELVANE_URGENCY, 0}}), 3); }
TEST_F(OperationBase, UrgencyAbsentWithLimitTwoGivesTwo) {
  EXPECT_EQ(limitFor({{KELVANE_URGENCY_LIMIT, 2}}), 2);
}
TEST_F(OperationBase, UrgencyOneWithLimitFourGivesOne) {
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, 1}, {KELVANE_URGENCY_LIMIT, 4}}), 1);
}
TEST_F(OperationBase, APresentUrgencyIsUsedEvenWhenOutOfRange) {
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, 0}, {KELVANE_URGENCY_LIMIT, 2}}), 3);
}
TEST_F(OperationBase, NothingUsefulGivesLimitThree) {
  EXPECT_EQ(limitFor({}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, -1}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, "3"}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, "1"}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, "1"}, {KELVANE_URGENCY_LIMIT, 2}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, std::numeric_limits<std::uint64_t>::max()}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY, std::int64_t{0x1'0000'0002}}}), 3);
  EXPECT_EQ(limitFor({{KELVANE_URGENCY_LIMIT, 5}}), 3);
}

// --- filtering by quota ---

TEST_F(OperationBase, OnAQuotaEventANoQuotaServiceIsLeftOut) {
  const auto shy = service("shy");
  shy->setNoQuota(true);
  const Services services{{"plain", service("plain")}, {"shy", shy}};
  const auto operation = KelvaneOperation::initWithInfo(
      Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_QUOTA_EVENT, true}}, services);
  EXPECT_EQ(operation->services().size(), 1u);
  EXPECT_TRUE(operation->services().contains("plain"));
  EXPECT_EQ(log_.count(5, "removing noQuota service shy for this quota event"), 1u);
}

TEST_F(OperationBase, WithTheQuotaFlagGivenAsAStringANoQuotaServiceIsKept) {
  const auto shy = service("shy");
  shy->setNoQuota(true);
  const auto operation = KelvaneOperation::initWithInfo(
      Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_QUOTA_EVENT, "true"}}, {{"shy", shy}});
  EXPECT_TRUE(operation->services().contains("shy"));
}

TEST_F(OperationBase, WithAQuotaFlagThatIsFalseANoQuotaServiceIsKept) {
  const auto shy = service("shy");
  shy->setNoQuota(true);
  for (const Value& flag : {Value(false), Value(0)}) {
    const auto operation = KelvaneOperation::initWithInfo(
        Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_QUOTA_EVENT, flag}}, {{"shy", shy}});
    EXPECT_TRUE(operation->services().contains("shy"));
  }
  EXPECT_FALSE(log_.contains("removing noQuota service"));
}

TEST_F(OperationBase, ARecordIsRemovedUnderItsOwnID) {
  const auto shy = service("other");
  shy->setNoQuota(true);
  const auto operation =
      KelvaneOperation::initWithInfo(Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_QUOTA_EVENT, 1}},
                                     {{"key", shy}, {"other", service("other")}});
  EXPECT_TRUE(operation->services().contains("key"));
  EXPECT_FALSE(operation->services().contains("other"));
}

// --- the in-flight table ---

TEST_F(OperationBase, WhenServicesAreNoLongerTakenAddingOneReturnsFalseAndRemovingGoesOn) {
  const auto it = operation();
  EXPECT_TRUE(it->updateInFlight("a", [] {}));
  it->setTakesServices(false);
  EXPECT_FALSE(it->updateInFlight("b", [] {}));
  EXPECT_TRUE(it->updateInFlight("a", nullptr));
  EXPECT_EQ(it->inFlightCount(), 0U);
}

TEST_F(OperationBase, AddingTheSameIdentifierTwiceReturnsTrueThenFalseAndKeepsTheFirstCallback) {
  const auto it = operation();
  std::string called;
  EXPECT_TRUE(it->updateInFlight("a", [&] { called += "first"; }));
  EXPECT_FALSE(it->updateInFlight("a", [&] { called += "second"; }));
  EXPECT_EQ(log_.count(3, "updateInFlight:cancelBlock: trying to add \"a\", which is already inFlight"), 1u);
  EXPECT_EQ(log_.count(5, "updateInFlight:cancelBlock: adding a"), 2u);
  it->cancelInFlightService("a");
  EXPECT_EQ(called, "first");
}

TEST_F(OperationBase, RemovingAnAbsentIdentifierReturnsFalse) {
  EXPECT_FALSE(operation()->updateInFlight("a", nullptr));
  EXPECT_EQ(log_.count(5, "updateInFlight:cancelBlock: trying to remove \"a\", which is not inFlight"), 1u);
}

TEST_F(OperationBase, RemovingDoesNotCallTheCallback) {
  const auto it = operation();
  bool called = false;
  EXPECT_TRUE(it->updateInFlight("a", [&] { called = true; }));
  EXPECT_TRUE(it->isInFlight("a"));
  EXPECT_TRUE(it->updateInFlight("a", nullptr));
  EXPECT_EQ(log_.count(5, "updateInFlight:cancelBlock: removing a"), 1u);
  EXPECT_FALSE(it->isInFlight("a"));
  EXPECT_FALSE(called);
}

TEST_F(OperationBase, CancelInFlightServiceOnAnAbsentIdentifierDoesNothing) {
  const auto it = operation();
  bool called = false;
  it->updateInFlight("a", [&] { called = true; });
  it->cancelInFlightService("b");
  EXPECT_FALSE(called);
  EXPECT_EQ(it->inFlightCount(), 1u);
}

TEST_F(OperationBase, CancelInFlightsCallsEveryCallbackOnTheCollectionQueueAndEmptiesTheTable) {
  const auto it = operation();
  int called = 0;
  const Done callback = [&] { called += dispatch_queue_is_current(it->collection_queue()) ? 1 : 100; };
  it->updateInFlight("a", callback);
  it->updateInFlight("b", callback);
  it->cancelInFlights();
  EXPECT_EQ(called, 2);
  EXPECT_EQ(it->inFlightCount(), 0u);
}

}  // namespace
}  // namespace kelvane
