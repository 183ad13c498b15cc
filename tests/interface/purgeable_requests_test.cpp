// Questions about purgeable space, over the wire.

#include <gtest/gtest.h>

#include "platform/foundation/user_defaults.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Caller;
using tests::DictionaryAnswer;
using tests::FakeService;

class PurgeableRequests : public tests::InterfaceFixture {
 protected:
  PurgeableRequests() {
    registry_->user_defaults_ = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
  }
  static Dictionary asking() { return {{KELVANE_VOLUME, "/data"}}; }
  FakeService& registeredWith(const std::string& ID, std::uint64_t amount) {
    FakeService& it = registered(ID);
    it.answersPurgeable(Dictionary{{KELVANE_AMOUNT, amount}});
    return it;
  }
  static Dictionary resultOf(Dictionary figures, std::int64_t total) {
    figures.set(KELVANE_TOTAL_AVAILABLE, total);
    figures.set(KELVANE_VOLUME, "/data");
    return figures;
  }
};

TEST_F(PurgeableRequests, EveryServicesFigureAndTheirSumAreTheAnswer) {
  registeredWith("one", 10);
  registeredWith("two", 32);
  EXPECT_EQ(caller().purgeableSpace(asking()).await(),
            resultOf({{"one", std::uint64_t{10}}, {"two", std::uint64_t{32}}}, 42));
}

TEST_F(PurgeableRequests, ACallerWithTheItemizedEntitlementOnlyMayUseThatFormAndGetsTheAnswerOfThePlainOne) {
  registeredWith("one", 10);
  Caller& process = caller();
  const auto plain = process.purgeableSpace(asking()).await();
  grant({ITEMIZED_PURGEABLE_ENTITLEMENT});
  EXPECT_EQ(process.itemizedPurgeableSpace(asking()).await(), plain);
  EXPECT_EQ(process.purgeableSpace(asking()).await(), std::nullopt);
  EXPECT_EQ(log_.count(3, "clientPurgeableSpace:replyBlock: Connection is not entitled!"), 1u);
  EXPECT_EQ(log_.count(3, "clientItemizedPurgeableSpace:replyBlock: Connection is not entitled!"), 0u);
}

TEST_F(PurgeableRequests, ACallerWithThePlainEntitlementOnlyIsRefusedTheItemizedForm) {
  FakeService& one = registeredWith("one", 10);
  grant({PURGEABLE_ENTITLEMENT});
  EXPECT_EQ(caller().itemizedPurgeableSpace(asking()).await(), std::nullopt);
  EXPECT_EQ(log_.count(3, "clientItemizedPurgeableSpace:replyBlock: Connection is not entitled!"), 1u);
  EXPECT_EQ(one.connectionsOpened(), 0);
}

TEST_F(PurgeableRequests, ARefusedOperationIsANilReply) {
  EXPECT_EQ(caller().purgeableSpace({}).await(), std::nullopt);
  EXPECT_EQ(caller().purgeableSpace({{KELVANE_VOLUME, 5}}).await(), std::nullopt);
  EXPECT_EQ(caller().purgeableSpace({{KELVANE_VOLUME, "/nowhere"}}).await(), std::nullopt);
}

TEST_F(PurgeableRequests, QuestionsAreAnsweredOneAtATimeInTheirOrder) {
  FakeService& one = registered("one");
  const auto first = caller().purgeableSpace(asking());
  one.awaitQuestions(1);
  const auto second = caller().itemizedPurgeableSpace(asking());
  Caller& other = caller();
  for (int i = 0; i < 20; ++i) other.cancel({});
  EXPECT_EQ(one.questions().size(), 1U);
  EXPECT_FALSE(first.hasCome());
  one.answerKept(Dictionary{{KELVANE_AMOUNT, 5}});
  EXPECT_EQ(first.await(), resultOf({{"one", 5}}, 5));
  EXPECT_EQ(second.await(), resultOf({{"one", 5}}, 5));
  EXPECT_EQ(one.questions().size(), 1U);  // the second one counted what the first one was told
}

TEST_F(PurgeableRequests, APurgeIsNotHeldUpByAQuestion) {
  FakeService& one = registered("one");
  one.purges([](std::uint64_t asked) { return asked; });
  const auto question = caller().purgeableSpace(asking());
  one.awaitQuestions(1);
  EXPECT_EQ((*caller().purge({{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, 7}}).await())[KELVANE_AMOUNT],
            Value(7));
  EXPECT_FALSE(question.hasCome());
  one.dropConnections();
  EXPECT_EQ(question.await(), resultOf({}, 0));
}

TEST_F(PurgeableRequests, WithoutAStoreTheAnswersAreCountedAllTheSame) {
  registry_->user_defaults_ = nullptr;
  FakeService& one = registeredWith("one", 10);
  EXPECT_EQ(caller().purgeableSpace(asking()).await(), resultOf({{"one", std::uint64_t{10}}}, 10));
  EXPECT_EQ(caller().purgeableSpace(asking()).await(), resultOf({{"one", std::uint64_t{10}}}, 10));
  EXPECT_EQ(one.questions().size(), 1U);  // and remembered for as long as the daemon lives
}

}  // namespace
}  // namespace kelvane
