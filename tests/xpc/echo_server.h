#pragma once

// An echo object behind a listener, for the tests of this folder.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/foundation/temporary_directory.h"
#include "tests/xpc/echo.h"
#include "tests/xpc/raw_peer.h"

namespace kelvane::tests {

enum class Door { path, endpoint };

inline std::string nameOf(const testing::TestParamInfo<Door>& info) {
  return info.param == Door::path ? "AtAPath" : "ThroughAnEndpoint";
}

/// Serves until it is destroyed, and then waits until every connection it accepted is gone.
class EchoServer {
 public:
  /// With accounts of its own it is open to every user.
  explicit EchoServer(Door door, xpc::ConnectionLimits limits = {}, wire::Accounts* accounts = nullptr);
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  [[nodiscard]] RawPeer rawPeer() const;
  [[nodiscard]] std::shared_ptr<xpc::Connection> connection() const;
  [[nodiscard]] std::string path() const { return folder_ / "echo.sock"; }
  [[nodiscard]] const xpc::Endpoint& endpoint() const { return endpoint_; }
  [[nodiscard]] const std::shared_ptr<xpc::Listener>& listener() const { return listener_; }
  [[nodiscard]] Echo& echo() const { return *echo_; }
  /// Blocks until one more accepted connection has ended.
  void awaitAnEnd() const { ended_.wait(); }
  [[nodiscard]] int ends() const { return ends_; }
  std::shared_ptr<xpc::Connection> lastAccepted();

  /// A client that was connected before, and one that connects now, both get their answers.
  void expectOthersAreServed();

 private:
  void accept(const std::shared_ptr<xpc::Connection>& connection);

  const test::TemporaryDirectory folder_;
  const xpc::ConnectionLimits limits_;
  const std::shared_ptr<Echo> echo_ = std::make_shared<Echo>();
  std::shared_ptr<xpc::Listener> listener_;
  xpc::Endpoint endpoint_;
  std::shared_ptr<xpc::Connection> bystander_;
  Signal ended_;
  std::atomic<int> ends_{0};
  std::mutex mutex_;
  std::vector<std::weak_ptr<xpc::Connection>> accepted_;  // guarded by mutex_
};

/// Makes one call and waits for what comes of it.
struct Answer {
  std::optional<Dictionary> reply;
  std::optional<xpc::Error> error;
};
Answer ask(const std::shared_ptr<xpc::Connection>& connection, const Dictionary& info);

class OverBothDoors : public testing::TestWithParam<Door> {};

}  // namespace kelvane::tests
