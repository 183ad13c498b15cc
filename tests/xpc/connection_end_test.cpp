#include <atomic>

#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

void drain(const std::shared_ptr<xpc::Connection>& connection) {
  dispatch_sync(connection->queue(), [] {});
}

class ConnectionEnd : public testing::Test {
 protected:
  ~ConnectionEnd() override {
    connection_->invalidate();
    drain(connection_);
  }
  std::shared_ptr<EchoProtocol> proxy() {
    return connection_->remoteObjectProxyWithErrorHandler<EchoProtocol>([this](const xpc::Error& error) {
      dispatch_assert_queue(connection_->queue());
      EXPECT_EQ(error.name, xpc::error_disconnected);
      events_ += "error ";
      failed_();
    });
  }
  void watchTheEnd() {
    connection_->setInterruptionHandler([this] {
      events_ += "interrupted ";
      interrupted_();
    });
    connection_->setInvalidationHandler([this] {
      events_ += "invalidated ";
      invalidated_();
    });
  }

  EchoServer server_{Door::endpoint};
  std::shared_ptr<xpc::Connection> connection_ = server_.connection();
  std::string events_;  // only on the connection's queue, and after its end
  Signal failed_;
  Signal interrupted_;
  Signal invalidated_;
};

TEST_F(ConnectionEnd, InterruptionThenInvalidationCallsEachHandlerOnce) {
  watchTheEnd();
  connection_->resume();
  proxy()->never([] { FAIL(); });
  ASSERT_TRUE(ask(connection_, {}).reply);
  server_.lastAccepted()->invalidate();
  interrupted_.wait();
  connection_->invalidate();
  connection_->invalidate();
  invalidated_.wait();
  drain(connection_);
  EXPECT_EQ(events_, "error interrupted invalidated ");
}

TEST_F(ConnectionEnd, InvalidationAloneCallsNoInterruptionHandler) {
  watchTheEnd();
  connection_->resume();
  ASSERT_TRUE(ask(connection_, {}).reply);
  connection_->invalidate();
  invalidated_.wait();
  server_.awaitAnEnd();
  drain(connection_);
  EXPECT_EQ(events_, "invalidated ");
}

TEST_F(ConnectionEnd, AnInterruptionNeverComesAfterTheInvalidationThatRacesWithIt) {
  for (int round = 0; round < 200; ++round) {
    const auto racing = server_.connection();
    std::string order;
    racing->setInterruptionHandler([&] { order += "interrupted "; });
    racing->setInvalidationHandler([&] { order += "invalidated"; });
    racing->resume();
    ASSERT_TRUE(ask(racing, {}).reply);
    server_.lastAccepted()->invalidate();
    racing->invalidate();
    drain(racing);
    EXPECT_TRUE(order == "invalidated" || order == "interrupted invalidated") << order;
  }
}

TEST_F(ConnectionEnd, AConnectionMayBeInvalidatedInItsOwnHandler) {
  watchTheEnd();
  connection_->resume();
  const auto remote = proxy();
  remote->echo({}, [&](const auto&) {
    connection_->invalidate();
    events_ += "replied ";
  });
  invalidated_.wait();
  EXPECT_EQ(events_, "replied invalidated ");
}

TEST_F(ConnectionEnd, TheServingSideMayInvalidateInAMethod) {
  server_.echo().setOnEcho([](const Dictionary& info) {
    if (info.contains("end")) xpc::Connection::current()->invalidate();
  });
  watchTheEnd();
  connection_->resume();
  EXPECT_EQ(ask(connection_, {{"end", 1}}).error->name, xpc::error_disconnected);
  interrupted_.wait();
  server_.expectOthersAreServed();
}

TEST_F(ConnectionEnd, AReplyThatIsDroppedUncalledIsOneThatNeverComes) {
  watchTheEnd();
  connection_->resume();
  proxy()->echo({{"drop", true}}, [](const auto&) { FAIL(); });
  ASSERT_TRUE(ask(connection_, {}).reply);
  drain(connection_);
  EXPECT_EQ(events_, "");
  connection_->invalidate();
  invalidated_.wait();
  EXPECT_EQ(events_, "error invalidated ");
}

TEST_F(ConnectionEnd, AReplyMayBeGivenLateOnAnyThread) {
  connection_->resume();
  const Signal replied;
  proxy()->never([&] { replied(); });
  ASSERT_TRUE(ask(connection_, {}).reply);
  server_.echo().takeKept().at(0)();
  replied.wait();
}

TEST_F(ConnectionEnd, ASecondCallOfOneReplyIsDropped) {
  connection_->resume();
  std::atomic<int> replies{0};
  proxy()->never([&] { ++replies; });
  ASSERT_TRUE(ask(connection_, {}).reply);
  const auto kept = server_.echo().takeKept();
  kept.at(0)();
  kept.at(0)();
  ASSERT_TRUE(ask(connection_, {}).reply);
  EXPECT_EQ(replies, 1);
}

TEST_F(ConnectionEnd, NothingThatTheConnectionHeldOutlivesIt) {
  const auto held = std::make_shared<int>();
  const std::weak_ptr<int> watch = held;
  std::weak_ptr<xpc::Connection> connection_watch;
  {
    const auto connection = server_.connection();
    connection_watch = connection;
    // Each keeps the connection, which keeps each.
    connection->setInterruptionHandler([held, connection] {});
    connection->setInvalidationHandler([held, connection] {});
    connection->setExportedObject<EchoProtocol>(std::make_shared<Echo>());
    connection->resume();
    const auto remote =
        connection->remoteObjectProxyWithErrorHandler<EchoProtocol>([held, connection](const xpc::Error&) {});
    remote->never([held, connection] {});
    ASSERT_TRUE(ask(connection, {}).reply);
    connection->invalidate();
    const dispatch_queue_t queue = connection->queue();
    dispatch_sync(queue, [] {});
  }
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_TRUE(connection_watch.expired());
}

TEST_F(ConnectionEnd, AConnectionThatIsNeverResumedGoesQuietly) {
  const auto held = std::make_shared<int>();
  {
    const auto connection = server_.connection();
    connection->setInvalidationHandler([held] { ADD_FAILURE(); });
  }
  EXPECT_EQ(held.use_count(), 1);
  server_.expectOthersAreServed();
}

TEST_F(ConnectionEnd, AnExportedObjectIsReleasedWithItsConnection) {
  const auto object = std::make_shared<Echo>();
  const auto listener = xpc::Listener::anonymousListener();
  const Signal ended;
  listener->setConnectionHandler([&](const std::shared_ptr<xpc::Connection>& accepted) {
    accepted->setExportedObject<EchoProtocol>(object);
    accepted->setInterruptionHandler([&] { ended(); });
    accepted->resume();
  });
  listener->resume();
  const auto client = xpc::Connection::initWithListenerEndpoint(listener->takeEndpoint());
  client->resume();
  ASSERT_TRUE(ask(client, {}).reply);
  client->invalidate();
  ended.wait();
  drain(client);
  while (object.use_count() > 1) server_.expectOthersAreServed();
}

TEST_F(ConnectionEnd, AProxyOutlivesItsConnectionAndItsCallsFailOnTheQueue) {
  watchTheEnd();
  connection_->resume();
  const auto remote = proxy();
  ASSERT_TRUE(ask(connection_, {}).reply);
  connection_->invalidate();
  invalidated_.wait();
  remote->echo({}, [](const auto&) { FAIL(); });
  failed_.wait();
  drain(connection_);
  EXPECT_EQ(events_, "invalidated error ");
}

TEST_F(ConnectionEnd, ACallBeforeResumeFailsAsOneAfterTheEndDoes) {
  proxy()->echo({}, [](const auto&) { FAIL(); });
  failed_.wait();
  connection_->resume();
  EXPECT_TRUE(ask(connection_, {}).reply);
}

TEST_F(ConnectionEnd, InvalidatingBeforeResumeIsAnEndLikeAnyOther) {
  watchTheEnd();
  connection_->invalidate();
  connection_->resume();
  invalidated_.wait();
  proxy()->echo({}, [](const auto&) { FAIL(); });
  failed_.wait();
}

}  // namespace
}  // namespace kelvane::tests
