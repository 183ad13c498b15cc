#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/xpc/connection.h"
#include "platform/xpc/listener.h"
#include "support/protocols.h"

namespace kelvane::tests {

/// A service as the daemon sees it: an object behind a listener of its own. It remembers what it was asked,
/// and answers as the test says. Any thread.
class FakeService final : public KelvaneServiceProtocol, public std::enable_shared_from_this<FakeService> {
 public:
  struct Call {
    std::string method;
    std::int32_t urgency = 0;
    Dictionary info;
  };
  /// Nothing as an answer: a nil reply. Throwing away the call is `silence`.
  using Answer = std::function<std::optional<Dictionary>(const Call&)>;

  static std::shared_ptr<FakeService> make() { return std::shared_ptr<FakeService>(new FakeService); }
  ~FakeService() override { stop(); }

  /// How calls are answered from now on; without it, and after `keepSilent`, they stay unanswered.
  void answer(Answer answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }
  void keepSilent() { answer(nullptr); }

  /// Listens, for whoever holds the endpoint.
  xpc::Endpoint listen() {
    listener_ = xpc::Listener::anonymousListener();
    serve();
    return listener_->takeEndpoint();
  }
  /// Listens on a socket, as a declared service does.
  void listenOn(const std::string& path) {
    std::string reason;
    listener_ = xpc::Listener::initWithSocketPath(path, 0600, reason);
    serve();
  }
  /// Closes every connection and listens no more, as a service does that dies.
  void stop() {
    if (listener_ != nullptr) listener_->invalidate();
    hangUp();
  }
  /// Closes every connection.
  void hangUp() {
    std::unique_lock lock(mutex_);
    const auto connections = std::exchange(connections_, {});
    lock.unlock();
    for (const auto& connection : connections) connection->invalidate();
  }

  [[nodiscard]] std::vector<Call> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  /// Blocks until so many calls have come.
  void awaitCalls(std::size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return calls_.size() >= count; });
  }
  /// Blocks until so many connections were closed by the other side.
  void awaitHangUps(std::size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return hang_ups_ >= count; });
  }
  [[nodiscard]] std::size_t connectionsEver() const {
    const std::lock_guard lock(mutex_);
    return connections_ever_;
  }

  void servicePurgeable(std::int32_t urgency, Dictionary info,
                        Reply<std::optional<Dictionary>> reply) override {
    take({"servicePurgeable", urgency, std::move(info)}, reply);
  }
  void servicePurge(std::int32_t urgency, Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    take({"servicePurge", urgency, std::move(info)}, reply);
  }
  void servicePeriodic(std::int32_t urgency, Dictionary info,
                       Reply<std::optional<Dictionary>> reply) override {
    take({"servicePeriodic", urgency, std::move(info)}, reply);
  }
  void serviceCancelPurge(Reply<> reply) override { take({"serviceCancelPurge", 0, {}}, without(reply)); }
  void servicePing(Reply<> reply) override { take({"servicePing", 0, {}}, without(reply)); }
  void serviceNotify(Dictionary notification, Reply<> reply) override {
    take({"serviceNotify", 0, std::move(notification)}, without(reply));
  }
  void serviceCallback(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    take({"serviceCallback", 0, std::move(info)}, reply);
  }

 private:
  using DictionaryReply = Reply<std::optional<Dictionary>>;

  FakeService() = default;

  static DictionaryReply without(Reply<> reply) {
    return [reply = std::move(reply)](const std::optional<Dictionary>& /*unused*/) { reply(); };
  }

  void serve() {
    listener_->setConnectionHandler(
        [weak = weak_from_this()](const std::shared_ptr<xpc::Connection>& connection) {
          if (const auto service = weak.lock()) service->accept(connection);
        });
    listener_->resume();
  }

  void accept(const std::shared_ptr<xpc::Connection>& connection) {
    connection->setExportedObject<KelvaneServiceProtocol>(shared_from_this());
    connection->setInterruptionHandler(
        [weak = weak_from_this(), ended = std::weak_ptr<xpc::Connection>(connection)] {
          if (const auto service = weak.lock()) service->forget(ended.lock());
        });
    {
      const std::lock_guard lock(mutex_);
      connections_.push_back(connection);
      ++connections_ever_;
    }
    connection->resume();
  }

  void forget(const std::shared_ptr<xpc::Connection>& connection) {
    const std::lock_guard lock(mutex_);
    std::erase(connections_, connection);
    ++hang_ups_;
    changed_.notify_all();
  }

  void take(const Call& call, const DictionaryReply& reply) {
    std::unique_lock lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
    const Answer answer = answer_;
    lock.unlock();
    if (answer) reply(answer(call));
  }

  std::shared_ptr<xpc::Listener> listener_;  // set by the test before anybody connects
  mutable std::mutex mutex_;                 // guards all below
  mutable std::condition_variable changed_;
  Answer answer_;
  std::vector<Call> calls_;
  std::vector<std::shared_ptr<xpc::Connection>> connections_;
  std::size_t connections_ever_ = 0;
  std::size_t hang_ups_ = 0;
};

}  // namespace kelvane::tests
