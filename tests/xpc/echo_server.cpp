#include "tests/xpc/echo_server.h"

#include <sys/stat.h>
#include <utility>

namespace kelvane::tests {

EchoServer::EchoServer(Door door, xpc::ConnectionLimits limits, wire::Accounts* accounts) : limits_(limits) {
  std::string reason;
  const mode_t mode = accounts != nullptr ? 0666 : 0600;
  listener_ = door == Door::path ? xpc::Listener::initWithSocketPath(path(), mode, reason)
                                 : xpc::Listener::anonymousListener();
  if (accounts != nullptr) {
    ::chmod(folder_.path().c_str(), 0755);
    listener_->setAccounts(*accounts);
  }
  endpoint_ = listener_->takeEndpoint();
  listener_->setConnectionHandler(
      [this](const std::shared_ptr<xpc::Connection>& connection) { accept(connection); });
  listener_->resume();
  bystander_ = connection();
  bystander_->resume();
  EXPECT_TRUE(ask(bystander_, {}).reply);
}

EchoServer::~EchoServer() {
  listener_->invalidate();
  bystander_->invalidate();
  const std::scoped_lock lock(mutex_);
  for (const auto& each : accepted_) {
    const auto connection = each.lock();
    if (connection == nullptr) continue;
    connection->invalidate();
    dispatch_sync(connection->queue(), [] {});
  }
}

void EchoServer::accept(const std::shared_ptr<xpc::Connection>& connection) {
  {
    const std::scoped_lock lock(mutex_);
    accepted_.push_back(connection);
  }
  connection->setExportedObject<EchoProtocol>(echo_);
  connection->setLimits(limits_);
  // Interrupted when its peer is gone; or never made, when its peer was gone already.
  const auto end = [this] {
    ++ends_;
    ended_();
  };
  connection->setInterruptionHandler(end);
  connection->setInvalidationHandler(end);
  connection->resume();
}

RawPeer EchoServer::rawPeer() const { return endpoint_ ? RawPeer::through(endpoint_) : RawPeer(path()); }

std::shared_ptr<xpc::Connection> EchoServer::connection() const {
  return endpoint_ ? xpc::Connection::initWithListenerEndpoint(endpoint_)
                   : xpc::Connection::initWithSocketPath(path());
}

std::shared_ptr<xpc::Connection> EchoServer::lastAccepted() {
  const std::scoped_lock lock(mutex_);
  return accepted_.back().lock();
}

void EchoServer::expectOthersAreServed() {
  const Dictionary sent{{"still", "served"}};
  EXPECT_EQ(ask(bystander_, sent).reply, sent);
  const auto fresh = connection();
  fresh->resume();
  EXPECT_EQ(ask(fresh, sent).reply, sent);
  fresh->invalidate();
  awaitAnEnd();  // any one: this end is none that a test waits for
}

Answer ask(const std::shared_ptr<xpc::Connection>& connection, const Dictionary& info) {
  Answer answer;
  const Signal answered;
  connection
      ->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error& error) {
        answer.error = error;
        answered();
      })
      ->echo(info, [&](std::optional<Dictionary> reply) {
        answer.reply = std::move(reply);
        answered();
      });
  answered.wait();
  return answer;
}

}  // namespace kelvane::tests
