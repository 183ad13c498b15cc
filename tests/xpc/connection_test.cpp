#include <gtest/gtest.h>

#include "tests/xpc/echo.h"

namespace kelvane::tests {
namespace {

/// An echo object behind an anonymous listener, and a connection to it.
class EchoConnection : public testing::Test {
 protected:
  void SetUp() override {
    listener_ = xpc::Listener::anonymousListener();
    listener_->setConnectionHandler([this](const std::shared_ptr<xpc::Connection>& connection) {
      connection->setExportedObject<EchoProtocol>(echo_);
      connection->resume();
      accepted_.push_back(connection);
    });
    listener_->resume();
    endpoint_ = listener_->takeEndpoint();
    connection_ = xpc::Connection::initWithListenerEndpoint(endpoint_);
  }

  std::shared_ptr<EchoProtocol> proxy() {
    return connection_->remoteObjectProxyWithErrorHandler<EchoProtocol>([this](const xpc::Error& error) {
      errors_.push_back(error);
      failed_();
    });
  }

  const std::shared_ptr<Echo> echo_ = std::make_shared<Echo>();
  std::shared_ptr<xpc::Listener> listener_;
  xpc::Endpoint endpoint_;
  std::shared_ptr<xpc::Connection> connection_;
  std::vector<std::shared_ptr<xpc::Connection>> accepted_;
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
  accepted_.at(0)->invalidate();
  interrupted.wait();
}

TEST_F(EchoConnection, AConnectionThatCannotBeMadeIsInvalidatedAndItsCallsFail) {
  listener_->invalidate();
  const auto late = xpc::Connection::initWithListenerEndpoint(endpoint_);
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
