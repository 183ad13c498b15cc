// A waiting request delays only later requests on the same connection.

#include <gtest/gtest.h>
#include <unistd.h>
#include <thread>

#include "platform/dispatch/manual_clock.h"
#include "platform/dispatch/suspension.h"
#include "platform/wire/account.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Answer;
using tests::Caller;
using tests::DictionaryAnswer;
using tests::FakeService;

class RequestOrder : public tests::InterfaceFixture {
 protected:
  /// Stays silent until the test gives an answer to the purge that comes here.
  Answer<FakeService::ResultReply> registeredSilent(const std::string& ID) {
    Answer<FakeService::ResultReply> asked;
    registered(ID).onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
      asked.come(reply);
    });
    return asked;
  }
  static Answer<bool> cancel(Caller& process) {
    Answer<bool> answer;
    process.proxy().clientCancelPurge({}, [answer]() mutable { answer.come(true); });
    return answer;
  }
  static Answer<Value> readState(Caller& process) {
    Answer<Value> answer;
    process.proxy().clientGetState(xpc::Anything{KELVANE_CACHE_ENABLED},
                                   [answer](const Value& value) mutable { answer.come(value); });
    return answer;
  }
  /// Sends `request`, and expects no answer although the daemon has read it and answers others meanwhile.
  /// `before` is the number of unfinished calls. Counting them here could give too many: while a connection
  /// is read, the next call is charged in advance.
  template <class Request>
  auto heldBack(Request request, Caller& process, std::uint64_t before) {
    auto later = request(process);
    while (callsNotDone() <= before && !later.hasCome()) std::this_thread::yield();
    Caller& other = caller();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(readState(other).await(), Value(true));
    EXPECT_FALSE(later.hasCome());
    return later;
  }
  /// Of this user, which the services of this process belong to as well.
  static std::uint64_t callsNotDone() {
    return wire::Accounts::shared().of(::geteuid())->used(wire::Resource::calls);
  }

  // Calls that are not done.
  static constexpr std::uint64_t purge_and_its_service = 2;
  static constexpr std::uint64_t question_and_its_service = 2;

  const ManualClock clock_;  // stands still, so no wait for a silent service ends by itself
  const Dictionary purge_info_{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, 50}, {KELVANE_URGENCY, 1}};
};

TEST_F(RequestOrder, ACancelIsHeldBackByAPurgeOnItsOwnConnectionAndOtherConnectionsAreAnswered) {
  const auto asked = registeredSilent("cache");
  Caller& process = caller();
  const auto purge = process.purge(purge_info_);
  const auto reply = asked.await();
  const auto cancelled = heldBack(cancel, process, purge_and_its_service);
  EXPECT_FALSE(purge.hasCome());
  reply(Dictionary{{KELVANE_AMOUNT, 50}});
  EXPECT_EQ((*purge.await())[KELVANE_AMOUNT], Value(50));
  EXPECT_TRUE(cancelled.await());
}

TEST_F(RequestOrder, AReadOfTheStateIsHeldBackByAPurgeOnItsOwnConnectionAndOtherConnectionsAreAnswered) {
  const auto asked = registeredSilent("cache");
  Caller& process = caller();
  const auto purge = process.purge(purge_info_);
  const auto reply = asked.await();
  const auto state = heldBack(readState, process, purge_and_its_service);
  EXPECT_FALSE(purge.hasCome());
  reply(Dictionary{{KELVANE_AMOUNT, 50}});
  EXPECT_EQ((*purge.await())[KELVANE_AMOUNT], Value(50));
  EXPECT_EQ(state.await(), Value(true));
}

TEST_F(RequestOrder, AReadOfTheStateIsHeldBackByAQuestionOnItsOwnConnectionAndOtherConnectionsAreAnswered) {
  FakeService& silent = registered("cache");
  Caller& process = caller();
  const auto question = process.purgeableSpace({{KELVANE_VOLUME, "/data"}});
  silent.awaitQuestions(1);
  const auto state = heldBack(readState, process, question_and_its_service);
  EXPECT_FALSE(question.hasCome());
  silent.answerKept(Dictionary{{KELVANE_AMOUNT, 5}});
  EXPECT_EQ((*question.await())[KELVANE_TOTAL_AVAILABLE], Value(5));
  EXPECT_EQ(state.await(), Value(true));
}

TEST_F(RequestOrder,
       AReadOfTheStateIsHeldBackByACancelThatWaitsForTheRegistryAndOtherConnectionsAreAnswered) {
  Caller& process = caller();
  std::optional<Suspension> registry_is_busy(registry_->collection_queue());
  const auto cancelled = cancel(process);
  while (callsNotDone() == 0) std::this_thread::yield();
  const auto state = heldBack(readState, process, 1);
  EXPECT_FALSE(cancelled.hasCome());
  registry_is_busy.reset();
  EXPECT_TRUE(cancelled.await());
  EXPECT_EQ(state.await(), Value(true));
}

}  // namespace
}  // namespace kelvane
