#include <gtest/gtest.h>
#include <vector>

#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Caller;
using tests::DictionaryAnswer;
using tests::FakeService;

class PurgeRequests : public tests::InterfaceFixture {
 protected:
  static Dictionary asking(std::uint64_t amount) {
    return Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, amount}, {KELVANE_URGENCY, 1}};
  }
  static Dictionary under(const char* token, Dictionary info) {
    info.set(KELVANE_TOKEN, token);
    return info;
  }
  FakeService& giving(const std::string& ID) {
    FakeService& it = registered(ID);
    it.purges([](std::uint64_t asked) { return asked; });
    return it;
  }
};

TEST_F(PurgeRequests, APurgeRequestWithoutATokenRunsNormally) {
  FakeService& it = giving("cache");
  const auto result = caller().purge(asking(50)).await();
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ((*result)[KELVANE_AMOUNT], Value(50));
  EXPECT_EQ((*result)[KELVANE_TOKEN], Value());
  EXPECT_EQ(it.purgesAsked().at(0).info[KELVANE_TOKEN], Value());
}

TEST_F(PurgeRequests, AnUnentitledPurgeRequestGetsANilReplyAndStartsNoOperation) {
  grant({CLIENT_ENTITLEMENT, PURGEABLE_ENTITLEMENT, SERVICE_ENTITLEMENT});
  FakeService& it = giving("cache");
  EXPECT_EQ(caller().purge(asking(50)).await(), std::nullopt);
  EXPECT_EQ(it.connectionsOpened(), 0);
  EXPECT_EQ(log_.count(3, "clientPurge:replyBlock: Connection is not entitled!"), 1u);
  EXPECT_FALSE(log_.contains("initWithInfo:services:"));
}

TEST_F(PurgeRequests, ARefusedOperationIsANilReply) {
  Caller& process = caller();
  EXPECT_EQ(process.purge({}).await(), std::nullopt);
  EXPECT_EQ(process.purge(Dictionary{{KELVANE_VOLUME, 5}, {KELVANE_AMOUNT, 5}}).await(), std::nullopt);
  EXPECT_EQ(process.purge(Dictionary{{KELVANE_VOLUME, "/elsewhere"}, {KELVANE_AMOUNT, 5}}).await(),
            std::nullopt);
  EXPECT_EQ(log_.count(3, "initWithInfo:services: No Volume key in info: "), 2u);
  EXPECT_EQ(log_.count(3, "initWithInfo:services: Unable to validate volume: /elsewhere"), 1u);
}

TEST_F(PurgeRequests, AnAmountThatIsNoNumberIsAnsweredWithTheError) {
  const Dictionary error{{KELVANE_ERROR, "Parameter error, no Amount key in info dict"}};
  Caller& process = caller();
  EXPECT_EQ(process.purge(Dictionary{{KELVANE_VOLUME, "/data"}}).await(), error);
  EXPECT_EQ(process.purge(Dictionary{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, "5"}}).await(), error);
}

TEST_F(PurgeRequests, ALargeAndNestedInfoTravelsToTheServiceAndBack) {
  FakeService& it = giving("cache");
  Dictionary info = asking(50);
  Value nested = 1;
  for (int depth = 0; depth < 20; ++depth) nested = Dictionary{{"deeper", nested}};
  Array many;
  for (int i = 0; i < 20'000; ++i) many.append("element " + std::to_string(i));
  info.set("nested", nested);
  info.set("many", many);
  const auto result = caller().purge(info).await();
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ((*result)["nested"], nested);
  EXPECT_EQ((*result)["many"], Value(many));
  EXPECT_EQ(it.purgesAsked().at(0).info["many"], Value(many));
}

TEST_F(PurgeRequests, TwoPurgesSentAtOnceTheSecondStartsOnlyWhenTheFirstHasBeenDone) {
  FakeService& it = registered("cache");
  tests::Answer<FakeService::ResultReply> first_asked;
  it.onPurge([&](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
    if (it.purgesAsked().size() == 1) {
      first_asked.come(reply);
    } else {
      reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
    }
  });
  const auto first = caller().purge(asking(50));
  const auto reply_to_first = first_asked.await();
  const auto second = caller().purge(asking(70));
  log_.await("initWithInfo:services: services: {cache = (",
             2);  // the second has been made and waits for its turn
  EXPECT_EQ(it.purgesAsked().size(), 1u);
  EXPECT_FALSE(second.hasCome());
  reply_to_first(Dictionary{{KELVANE_AMOUNT, 50}});
  EXPECT_EQ((*first.await())[KELVANE_AMOUNT], Value(50));
  EXPECT_EQ((*second.await())[KELVANE_AMOUNT], Value(70));
  std::string order;
  for (const auto& line : log_.lines()) {
    if (line.text.starts_with("startOperation: IN QUEUE")) order += "begins ";
    if (line.text.starts_with("startOperation: result")) order += "ends ";
  }
  EXPECT_EQ(order, "begins ends begins ends ");
}

TEST_F(PurgeRequests, ARefusedPurgeWaitsForItsTurn) {
  FakeService& it = registered("cache");
  tests::Answer<FakeService::ResultReply> asked;
  it.onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    asked.come(reply);
  });
  const auto first = caller().purge(asking(50));
  const auto reply = asked.await();
  const auto refused = caller().purge({{KELVANE_VOLUME, "/elsewhere"}});
  log_.await("Unable to validate volume: /elsewhere");
  Caller& other = caller();
  for (int i = 0; i < 20; ++i) other.cancel({});
  EXPECT_FALSE(refused.hasCome());
  reply(Dictionary{{KELVANE_AMOUNT, 50}});
  EXPECT_EQ(refused.await(), std::nullopt);
  EXPECT_TRUE(first.await());
}

TEST_F(PurgeRequests, TheCallbackGetsEveryReplyAndTheResult) {
  giving("cache");
  std::vector<std::optional<Dictionary>> got;
  DictionaryAnswer finished;
  registry_->purge(
      asking(50), [&](const std::optional<Dictionary>& each) { got.push_back(each); },
      [finished](const std::optional<Dictionary>& result) mutable { finished.come(result); });
  const auto result = finished.await();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ((*got[0])[KELVANE_AMOUNT], Value(50));
  EXPECT_TRUE(got[0]->contains(KELVANE_ELAPSED_TIME));
  EXPECT_EQ(got[1], result);
  EXPECT_TRUE(result->contains(KELVANE_FREESPACE_END));
}

TEST_F(PurgeRequests, ACallThatNoConnectionBroughtHoldsNoEntitlement) {
  DictionaryAnswer answer;
  registry_->clientPurge(asking(50),
                         [answer](const std::optional<Dictionary>& result) mutable { answer.come(result); });
  EXPECT_EQ(answer.await(), std::nullopt);
}

// --- cancelling ---

TEST_F(PurgeRequests, APurgeWithoutATokenCannotBeCancelledByAClient) {
  FakeService& it = registered("cache");
  tests::Answer<FakeService::ResultReply> asked;
  it.onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    asked.come(reply);
  });
  const auto result = caller().purge(asking(50));
  const auto reply = asked.await();
  caller().cancel({});
  caller().cancel(under("token", {}));
  caller().cancel(under("", {}));
  EXPECT_EQ(it.cancels(), 0);
  EXPECT_FALSE(result.hasCome());
  reply(Dictionary{{KELVANE_AMOUNT, 50}});
  EXPECT_EQ((*result.await())[KELVANE_AMOUNT], Value(50));
  EXPECT_FALSE(result.await()->contains(KELVANE_OPERATION_CANCELLED));
}

TEST_F(PurgeRequests, ACancelWithoutATokenRepliesAndChangesNothing) {
  caller().cancel({});
  EXPECT_EQ(registry_->purgeOperations(), std::nullopt);
}

TEST_F(PurgeRequests, ACancelWithATokenOfAFinishedPurgeRepliesAndChangesNothing) {
  FakeService& it = giving("cache");
  Caller& process = caller();
  process.purge(under("token", asking(50))).await();
  process.cancel(under("token", {}));
  EXPECT_EQ(it.cancels(), 0);
  EXPECT_EQ((*process.purge(under("token", asking(20))).await())[KELVANE_AMOUNT], Value(20));
}

TEST_F(PurgeRequests, ACancelNeedsNoEntitlementAndMayComeWithoutAReply) {
  grant({});
  caller().cancel(under("token", {}));
  registry_->clientCancelPurge(under("token", {}), nullptr);
}

TEST_F(PurgeRequests, ACancelSentWhileThePurgeIsRunningUnderTheSameTokenFindsNoOperationAndLeavesItRunning) {
  FakeService& it = registered("cache");
  tests::Answer<FakeService::ResultReply> asked;
  it.onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
    asked.come(reply);
  });
  const auto result = caller().purge(under("token", asking(50)));
  const auto reply = asked.await();
  caller().cancel(under("token", {}));
  EXPECT_EQ(it.cancels(), 0);
  reply(Dictionary{{KELVANE_AMOUNT, 50}});
  const auto done = result.await();
  EXPECT_EQ((*done)[KELVANE_AMOUNT], Value(50));
  EXPECT_FALSE(done->contains(KELVANE_OPERATION_CANCELLED));
}

}  // namespace
}  // namespace kelvane
