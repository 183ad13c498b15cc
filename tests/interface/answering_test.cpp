// On which queue a request is answered, and which work waits for its answer.

#include <gtest/gtest.h>
#include <functional>
#include <vector>

#include "platform/foundation/user_defaults.h"
#include "platform/xpc/delivery.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::Answer;
using tests::Caller;
using tests::Registry;
using Result = std::optional<Dictionary>;

class Answering : public tests::InterfaceFixture {
 protected:
  using Request = std::function<void(Registry& registry, Reply<Result> reply)>;

  void SetUp() override {
    InterfaceFixture::SetUp();
    registry_->user_defaults_ = UserDefaults::initWithSuiteName("com.orvel.kelvane", directory_.path());
    connection_ = xpc::Connection::initWithSocketPath(socketPath());
    connection_->resume();
  }
  void TearDown() override {
    connection_->invalidate();
    InterfaceFixture::TearDown();
  }
  /// Every request that may take a while, with its arguments.
  [[nodiscard]] static std::vector<Request> requests() {
    const Dictionary info{{KELVANE_VOLUME, "/data"}, {KELVANE_AMOUNT, 50}};
    return {[=](Registry& it, auto reply) { it.clientPurge(info, reply); },
            [=](Registry& it, auto reply) { it.clientPurge({}, reply); },
            [=](Registry& it, auto reply) { it.clientPurgeableSpace(info, reply); },
            [=](Registry& it, auto reply) { it.clientItemizedPurgeableSpace(info, reply); }};
  }
  /// Calls the method as a message over the connection would, with the test's own reply.
  void request(const Request& request, const Reply<Result>& reply) {
    dispatch_async(connection_->queue(), [=, this] {
      static const std::shared_ptr<xpc::IncomingCall> no_call;
      const xpc::Delivery delivery(connection_, no_call);
      request(*registry_, reply);
    });
  }
  void expectAnswersFromTheGlobalQueue() {
    for (const Request& each : requests()) {
      Answer<bool> from_global;
      Answer<bool> from_connection;
      request(each, [=, queue = connection_->queue()](const Result&) mutable {
        from_connection.come(dispatch_queue_is_current(queue));
        from_global.come(dispatch_queue_is_current(dispatch_get_global_queue(0, 0)));
      });
      EXPECT_TRUE(from_global.await());
      EXPECT_FALSE(from_connection.await());
    }
  }
  /// While a reply is being called, nothing else of its connection runs, but other connections are served.
  void expectAnswersHoldTheirConnection() {
    Caller& other = caller();
    for (const Request& each : requests()) {
      Answer<bool> answering;
      Answer<bool> go_on;
      Answer<bool> answered;
      Answer<bool> next;
      request(each, [=](const Result&) mutable {
        answering.come(true);
        go_on.await();
        answered.come(true);
      });
      answering.await();
      dispatch_async(connection_->queue(), [=]() mutable { next.come(answered.hasCome()); });
      for (int i = 0; i < 20; ++i) other.cancel({});
      EXPECT_FALSE(next.hasCome());
      go_on.come(true);
      EXPECT_TRUE(next.await());
    }
  }

  std::shared_ptr<xpc::Connection> connection_;
};

TEST_F(Answering, ComesFromTheGlobalQueueAndNeverFromTheIncomingCall) { expectAnswersFromTheGlobalQueue(); }

TEST_F(Answering, OfARefusalComesFromTheGlobalQueueToo) {
  grant({});
  expectAnswersFromTheGlobalQueue();
}

TEST_F(Answering, HoldsItsConnectionUntilTheAnswerIsSent) { expectAnswersHoldTheirConnection(); }

TEST_F(Answering, OfARefusalHoldsItsConnectionToo) {
  grant({});
  expectAnswersHoldTheirConnection();
}

}  // namespace
}  // namespace kelvane
