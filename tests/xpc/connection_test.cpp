#include <gtest/gtest.h>

#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

/// A connection to an echo object.
class EchoConnection : public testing::Test {
 protected:
  ~EchoConnection() override {
    connection_->invalidate();
    dispatch_sync(connection_->queue(), [] {});
  }

  std::shared_ptr<EchoProtocol> proxy() {
    return connection_->remoteObjectProxyWithErrorHandler<EchoProtocol>([this](const xpc::Error& error) {
      errors_.push_back(error);
      failed_();
    });
  }

  EchoServer server_{Door::endpoint};
  const std::shared_ptr<xpc::Connection> connection_ = server_.connection();
  std::vector<xpc::Error> errors_;
  Signal failed_;
};

TEST_F(EchoConnection, ACallGetsItsReply) {
  connection_->resume();
  const Dictionary sent{{"text", "ü"},
                        {"number", 1},
                        {"most", ~0ULL},
                        {"least", INT64_MIN},
                        {"yes", true},
                        {"half", 0.5},
                        {"when", Date{12}},
                        {"bytes", Data({1, 2, 0})},
                        {"list", Array{1, "two", Array{}}},
                        {"inner", Dictionary{{"deep", Dictionary{}}}}};
  std::optional<Dictionary> got;
  const Signal replied;
  proxy()->echo(sent, [&](std::optional<Dictionary> reply) {
    got = std::move(reply);
    replied();
  });
  replied.wait();
  EXPECT_EQ(got, sent);
  EXPECT_TRUE((*got)["yes"].isBoolean());
}

TEST_F(EchoConnection, ANilReplyComesAsNothing) {
  connection_->resume();
  const Signal replied;
  proxy()->echo({{"nil", 1}}, [&](const std::optional<Dictionary>& reply) {
    EXPECT_FALSE(reply);
    replied();
  });
  replied.wait();
}

TEST_F(EchoConnection, InvalidatingCallsTheErrorHandlerOfEachOutstandingCallAndThenTheInvalidationHandler) {
  const Signal invalidated;
  connection_->setInvalidationHandler([&] {
    EXPECT_EQ(errors_.size(), 2U);
    invalidated();
  });
  connection_->resume();
  const auto remote = proxy();
  remote->never([] { FAIL(); });
  remote->never([] { FAIL(); });
  connection_->invalidate();
  invalidated.wait();
  EXPECT_EQ(errors_.front().name, xpc::error_disconnected);
}

TEST_F(EchoConnection, TheFarEndsClosingInterrupts) {
  const Signal interrupted;
  connection_->setInterruptionHandler([&] { interrupted(); });
  connection_->resume();
  const Signal replied;
  proxy()->echo({}, [&](const auto&) { replied(); });
  replied.wait();
  server_.lastAccepted()->invalidate();
  interrupted.wait();
}

TEST_F(EchoConnection, AConnectionThatCannotBeMadeIsInvalidatedAndItsCallsFail) {
  server_.listener()->invalidate();
  const auto late = server_.connection();
  const Signal invalidated;
  late->setInvalidationHandler([&] { invalidated(); });
  late->resume();
  late->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error&) { failed_(); })->never([] {
    FAIL();
  });
  invalidated.wait();
  failed_.wait();
}

}  // namespace
}  // namespace kelvane::tests
