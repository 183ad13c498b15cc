#include <unistd.h>
#include <atomic>

#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

void close(const std::shared_ptr<xpc::Connection>& connection) {
  connection->invalidate();
  dispatch_sync(connection->queue(), [] {});
}

class ConnectionQueue : public testing::Test {
 protected:
  ~ConnectionQueue() override {
    close(connection_);
    close(other_);
  }
  static std::shared_ptr<EchoProtocol> proxy(const std::shared_ptr<xpc::Connection>& connection) {
    return connection->remoteObjectProxyWithErrorHandler<EchoProtocol>(
        [](const xpc::Error& error) { ADD_FAILURE() << error.description(); });
  }

  EchoServer server_{Door::endpoint};
  const std::shared_ptr<xpc::Connection> connection_ = server_.connection();
  const std::shared_ptr<xpc::Connection> other_ = server_.connection();
};

TEST_F(ConnectionQueue, RepliesComeInOrderOnTheConnectionsQueueAndNeverOverlap) {
  connection_->resume();
  const auto remote = proxy(connection_);
  std::vector<int> order;
  std::atomic<int> inside{0};
  const Signal done;
  for (int i = 0; i < 500; ++i) {
    remote->echo({{"number", i}}, [&, i](const std::optional<Dictionary>& reply) {
      EXPECT_EQ(inside++, 0);
      dispatch_assert_queue(connection_->queue());
      EXPECT_EQ((*reply)["number"].intValue(), i);
      order.push_back(i);
      --inside;
      if (i == 499) done();
    });
  }
  done.wait();
  ASSERT_EQ(order.size(), 500U);
  for (std::size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], static_cast<int>(i));
}

TEST_F(ConnectionQueue, MethodsOfOneConnectionNeverOverlapAndRunOnItsQueue) {
  std::atomic<int> inside{0};
  server_.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("number")) return;
    EXPECT_EQ(inside++, 0);
    const auto current = xpc::Connection::current();
    ASSERT_TRUE(current);
    dispatch_assert_queue(current->queue());
    --inside;
  });
  connection_->resume();
  const auto remote = proxy(connection_);
  const Signal done;
  for (int i = 0; i < 300; ++i) remote->echo({{"number", i}}, [&](const auto&) { done(); });
  for (int i = 0; i < 300; ++i) done.wait();
}

TEST_F(ConnectionQueue, AHandlerThatBlocksDoesNotHoldUpAnotherConnection) {
  const Signal entered;
  const Signal go_on;
  server_.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("block")) return;
    entered();
    go_on.wait();
  });
  connection_->resume();
  other_->resume();
  const Signal released;
  proxy(connection_)->echo({{"block", true}}, [&](const auto&) { released(); });
  entered.wait();
  EXPECT_TRUE(ask(other_, {}).reply);
  server_.expectOthersAreServed();
  go_on();
  released.wait();
}

TEST_F(ConnectionQueue, AReplyArrivesWhileAHandlerOfAnotherConnectionWaitsForIt) {
  other_->resume();
  server_.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("ask further")) return;
    EXPECT_TRUE(ask(other_, {{"inner", 1}}).reply);
  });
  connection_->resume();
  EXPECT_TRUE(ask(connection_, {{"ask further", true}}).reply);
}

TEST_F(ConnectionQueue, ManyHandlersMayBlockAtOnce) {
  constexpr int many = 100;
  std::atomic<int> entered{0};
  const Signal all;
  const Signal go_on;
  server_.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("block")) return;
    if (++entered == many) all();
    go_on.wait();
  });
  std::vector<std::shared_ptr<xpc::Connection>> connections;
  const Signal released;
  for (int i = 0; i < many; ++i) {
    connections.push_back(server_.connection());
    connections.back()->resume();
    proxy(connections.back())->echo({{"block", true}}, [&](const auto&) { released(); });
  }
  all.wait();
  for (int i = 0; i < many; ++i) go_on();
  for (int i = 0; i < many; ++i) released.wait();
  for (const auto& connection : connections) close(connection);
}

TEST_F(ConnectionQueue, TheCurrentConnectionIsTheOneThatDeliveredTheMessage) {
  EXPECT_EQ(xpc::Connection::current(), nullptr);
  std::atomic<bool> on_the_far_side{false};
  server_.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("whose")) return;
    const auto current = xpc::Connection::current();
    on_the_far_side = current != nullptr && current != connection_ && current->credentials().has_value();
  });
  connection_->resume();
  const Signal done;
  proxy(connection_)->echo({{"whose", 1}}, [&](const auto&) {
    EXPECT_EQ(xpc::Connection::current(), connection_);
    done();
  });
  done.wait();
  EXPECT_TRUE(on_the_far_side);
  const Signal elsewhere;
  dispatch_async(connection_->queue(), [&] {
    EXPECT_EQ(xpc::Connection::current(), nullptr);
    elsewhere();
  });
  elsewhere.wait();
}

TEST_F(ConnectionQueue, ThePeersCredentialsAreThoseTheKernelRecorded) {
  EchoServer at_a_path(Door::path);
  const auto connection = at_a_path.connection();
  connection->resume();
  EXPECT_TRUE(ask(connection, {}).reply);
  const auto peer = at_a_path.lastAccepted()->credentials();
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->pid, ::getpid());
  EXPECT_EQ(peer->uid, ::getuid());
  EXPECT_EQ(peer->gid, ::getgid());
  close(connection);
}

}  // namespace
}  // namespace kelvane::tests
