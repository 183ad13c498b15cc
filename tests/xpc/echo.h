#pragma once

// A small remote interface and its object, for the tests of this folder.

#include <atomic>
#include <memory>
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
  void never(xpc::Reply<> reply) override { send<&EchoProtocol::never>("never", std::move(reply)); }
};

/// Answers with what it got; keeps what it must not answer.
class Echo final : public EchoProtocol {
 public:
  void echo(Dictionary info, xpc::Reply<std::optional<Dictionary>> reply) override {
    ++calls;
    if (info.contains("drop")) return;
    if (info.contains("nil")) {
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
    last_name = std::move(name);
    last_endpoint = std::move(endpoint);
    reply();
  }
  void never(xpc::Reply<> reply) override {
    ++calls;
    kept.push_back(std::move(reply));
  }

  std::atomic<int> calls{0};
  std::string last_name;
  xpc::Endpoint last_endpoint;
  std::vector<xpc::Reply<>> kept;
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
        {method<&EchoProtocol::echo>("echo"), method<&EchoProtocol::echoAnything>("echoAnything"),
         method<&EchoProtocol::openBack>("openBack"), method<&EchoProtocol::never>("never")}};
    return it;
  }
};
