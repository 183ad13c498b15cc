#pragma once

// A small remote interface and its object, for the tests of this folder.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch/group.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/listener.h"

namespace kelvane::tests {

class EchoProtocol {
 public:
  virtual ~EchoProtocol() = default;
  virtual void echo(Dictionary info, xpc::Reply<std::optional<Dictionary>> reply) = 0;
  virtual void echoAnything(Value value, xpc::Reply<Value> reply) = 0;
  virtual void openBack(std::string name, xpc::Endpoint endpoint, xpc::Reply<> reply) = 0;
  virtual void greet(std::string name, xpc::Reply<std::string> reply) = 0;
  virtual void never(xpc::Reply<> reply) = 0;
};

class EchoProxy final : public EchoProtocol, private xpc::ProxyBase {
 public:
  using ProxyBase::ProxyBase;
  void echo(Dictionary info, xpc::Reply<std::optional<Dictionary>> reply) override {
    send<&EchoProtocol::echo>("echo", std::move(reply), info);
  }
  void echoAnything(Value value, xpc::Reply<Value> reply) override {
    send<&EchoProtocol::echoAnything>("echoAnything", std::move(reply), value);
  }
  void openBack(std::string name, xpc::Endpoint endpoint, xpc::Reply<> reply) override {
    send<&EchoProtocol::openBack>("openBack", std::move(reply), name, endpoint);
  }
  void greet(std::string name, xpc::Reply<std::string> reply) override {
    send<&EchoProtocol::greet>("greet", std::move(reply), name);
  }
  void never(xpc::Reply<> reply) override { send<&EchoProtocol::never>("never", std::move(reply)); }
};

/// Answers with what it got; keeps what it must not answer.
class Echo final : public EchoProtocol {
 public:
  void echo(Dictionary info, xpc::Reply<std::optional<Dictionary>> reply) override {
    ++calls;
    const auto [on_echo, instead_of_text] = settings();
    if (on_echo) on_echo(info);
    if (info.contains("drop")) return;
    if (info.contains("text")) ++text_calls;
    if (info.contains("text") && instead_of_text) {
      reply(instead_of_text);
    } else if (info.contains("nil")) {
      reply(std::nullopt);
    } else {
      reply(info);
    }
  }
  void echoAnything(Value value, xpc::Reply<Value> reply) override {
    ++calls;
    reply(value);
  }
  void openBack(std::string name, xpc::Endpoint endpoint, xpc::Reply<> reply) override {
    ++calls;
    {
      const std::scoped_lock lock(mutex_);
      last_name_ = std::move(name);
      last_endpoint_ = std::move(endpoint);
    }
    reply();
  }
  void greet(std::string name, xpc::Reply<std::string> reply) override {
    ++calls;
    reply("Hello, " + name);
  }
  void never(xpc::Reply<> reply) override {
    ++calls;
    const std::scoped_lock lock(mutex_);
    kept_.push_back(std::move(reply));
  }

  /// Called in each "echo", before the reply.
  void setOnEcho(std::function<void(const Dictionary&)> handler) {
    const std::scoped_lock lock(mutex_);
    on_echo_ = std::move(handler);
  }
  /// The reply to whoever sends "text".
  void setInsteadOfText(Dictionary reply) {
    const std::scoped_lock lock(mutex_);
    instead_of_text_ = std::move(reply);
  }

  std::atomic<int> calls{0};
  std::atomic<int> text_calls{0};

  [[nodiscard]] std::string lastName() const {
    const std::scoped_lock lock(mutex_);
    return last_name_;
  }
  [[nodiscard]] xpc::Endpoint lastEndpoint() const {
    const std::scoped_lock lock(mutex_);
    return last_endpoint_;
  }
  [[nodiscard]] std::size_t keptCount() const {
    const std::scoped_lock lock(mutex_);
    return kept_.size();
  }
  /// The replies that "never" has not given.
  [[nodiscard]] std::vector<xpc::Reply<>> takeKept() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(kept_, {});
  }

 private:
  std::pair<std::function<void(const Dictionary&)>, std::optional<Dictionary>> settings() const {
    const std::scoped_lock lock(mutex_);
    return {on_echo_, instead_of_text_};
  }

  mutable std::mutex mutex_;  // guards all below
  std::function<void(const Dictionary&)> on_echo_;
  std::optional<Dictionary> instead_of_text_;
  std::string last_name_;
  xpc::Endpoint last_endpoint_;
  std::vector<xpc::Reply<>> kept_;
};

/// Waits for a signal without a time limit of its own; the test program has one.
class Signal {
 public:
  void operator()() const { dispatch_semaphore_signal(semaphore_); }
  void wait() const { static_cast<void>(dispatch_semaphore_wait(semaphore_, DISPATCH_TIME_FOREVER)); }

 private:
  dispatch_semaphore_t semaphore_ = dispatch_semaphore_create(0);
};

}  // namespace kelvane::tests

template <>
struct kelvane::xpc::RemoteInterface<kelvane::tests::EchoProtocol> {
  using Proxy = kelvane::tests::EchoProxy;
  static const InterfaceDescription& description() {
    using kelvane::tests::EchoProtocol;
    static const InterfaceDescription it{
        "/test/echo",
        "test.Echo",
        {method<&EchoProtocol::echo>("echo", {"info"}, {"result"}),
         method<&EchoProtocol::echoAnything>("echoAnything", {"value"}, {"same"}),
         method<&EchoProtocol::openBack>("openBack", {"name", "endpoint"}),
         method<&EchoProtocol::greet>("greet", {"name"}, {"greeting"}),
         method<&EchoProtocol::never>("never")},
        {{"Answer", [] { return std::uint32_t{42}; }}}};
    return it;
  }
};
