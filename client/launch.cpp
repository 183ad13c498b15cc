#include "kelvane/launch.h"

#include <unistd.h>
#include <cerrno>
#include <future>
#include <memory>
#include <utility>

#include "platform/xpc/connection.h"

namespace kelvane {
namespace client {
namespace {

using xpc::Reply;

constexpr const char* launch_object = "/com/orvel/launch";
constexpr const char* launch_interface = "com.orvel.Launch";

class LaunchCalls : private xpc::ProxyBase {
 public:
  using ProxyBase::ProxyBase;
  void RunActivity(const std::string& name, Reply<> reply);
  void PostEvent(const std::string& stream, const Dictionary& event, Reply<> reply);
};

class PropertyCalls : private xpc::ProxyBase {
 public:
  using ProxyBase::ProxyBase;
  void Get(const std::string& interface, const std::string& name, Reply<xpc::Anything> reply);
};

}  // namespace
}  // namespace client

template <>
struct xpc::RemoteInterface<client::LaunchCalls> {
  using Proxy = client::LaunchCalls;
  static const InterfaceDescription& description() {
    static const InterfaceDescription it{client::launch_object, client::launch_interface, {}};
    return it;
  }
};
template <>
struct xpc::RemoteInterface<client::PropertyCalls> {
  using Proxy = client::PropertyCalls;
  static const InterfaceDescription& description() {
    static const InterfaceDescription it{client::launch_object, "org.freedesktop.DBus.Properties", {}};
    return it;
  }
};

namespace client {
namespace {

void LaunchCalls::RunActivity(const std::string& name, Reply<> reply) {
  send<&LaunchCalls::RunActivity>("RunActivity", std::move(reply), name);
}
void LaunchCalls::PostEvent(const std::string& stream, const Dictionary& event, Reply<> reply) {
  send<&LaunchCalls::PostEvent>("PostEvent", std::move(reply), stream, event);
}
void PropertyCalls::Get(const std::string& interface, const std::string& name, Reply<xpc::Anything> reply) {
  send<&PropertyCalls::Get>("Get", std::move(reply), interface, name);
}

Error errorOf(const xpc::Error& error) {
  if (error.message == xpc::handshake_took_too_long)
    return {Failure::connectionLost, "the daemon does not answer"};
  if (error.name == xpc::error_disconnected)
    return {Failure::connectionLost, "the daemon went away before it answered"};
  return {Failure::badRequest, error.message};
}

}  // namespace

template <class T, class Protocol, class Send>
Result<T> LaunchSocket::call(const Send& send) const {
  if (::access(path_.c_str(), W_OK) != 0 && errno == EACCES)
    return Error{Failure::refused, "the launch socket is for root and the daemon's user only"};
  const auto connection = xpc::Connection::initWithSocketPath(path_);
  if (!connection->credentials()) return Error{Failure::noDaemon, "nobody listens on the launch socket"};
  connection->resume();
  // The connection may answer after this gave up.
  const auto answer = std::make_shared<std::promise<Result<T>>>();
  std::future<Result<T>> future = answer->get_future();
  send(*connection->template remoteObjectProxyWithErrorHandler<Protocol>(
           [answer](const xpc::Error& error) { answer->set_value(errorOf(error)); }),
       answer);
  const bool answered = future.wait_for(patience_) == std::future_status::ready;
  connection->invalidate();
  if (!answered) return Error{Failure::connectionLost, "the daemon does not answer"};
  return future.get();
}

Result<std::uint64_t> LaunchSocket::transactions() const {
  return call<std::uint64_t, PropertyCalls>([](PropertyCalls& properties, const auto& answer) {
    properties.Get(launch_interface, "Transactions", [answer](const xpc::Anything& number) {
      answer->set_value(number.value.unsignedLongLongValue());
    });
  });
}

Result<Done> LaunchSocket::runActivity(const std::string& name) const {
  return call<Done, LaunchCalls>([&](LaunchCalls& daemon, const auto& answer) {
    daemon.RunActivity(name, [answer] { answer->set_value(Done()); });
  });
}

Result<Done> LaunchSocket::postEvent(const std::string& stream, const Dictionary& event) const {
  return call<Done, LaunchCalls>([&](LaunchCalls& daemon, const auto& answer) {
    daemon.PostEvent(stream, event, [answer] { answer->set_value(Done()); });
  });
}

}  // namespace client
}  // namespace kelvane
