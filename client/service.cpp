#include "kelvane/service.h"

#include <mutex>
#include <utility>

#include "client/daemon_socket.h"
#include "client/handler_calls.h"
#include "client/registration.h"
#include "platform/host/service_manager.h"
#include "platform/xpc/listener.h"

namespace kelvane::client {
namespace {

/// Everybody may connect to the socket; who is let in is decided by what the kernel says about the peer.
constexpr mode_t declared_socket_mode = 0666;

/// A declared service has no connection to the daemon, so it asks who holds the daemon's socket when a peer
/// calls that is neither root nor the one that held it last.
class CallerCheck {
 public:
  CallerCheck(std::optional<std::vector<uid_t>> callers, std::string daemon_socket)
      : callers_(std::move(callers)), daemon_socket_(std::move(daemon_socket)) {}

  bool operator()(const xpc::PeerCredentials& peer) {
    const std::lock_guard lock(mutex_);
    if (mayCall(peer.uid, callers_, holder_)) return true;
    if (callers_) return false;
    holder_ = listenerOf(daemon_socket_);
    return mayCall(peer.uid, callers_, holder_);
  }

 private:
  const std::optional<std::vector<uid_t>> callers_;
  const std::string daemon_socket_;
  std::mutex mutex_;
  std::optional<uid_t> holder_;  // guarded by mutex_
};

std::shared_ptr<xpc::Listener> declaredListener(const ServiceOptions& options, std::string& reason) {
  if (!options.socket_path.empty()) {
    return xpc::Listener::initWithSocketPath(options.socket_path, declared_socket_mode, reason);
  }
  auto listener = xpc::Listener::initWithListeningSocket(takePassedSocket(options.passed_socket));
  if (listener == nullptr)
    reason = "no listening socket was handed over as \"" + options.passed_socket + "\"";
  return listener;
}

void serve(xpc::Listener& listener, const std::shared_ptr<HandlerCalls>& calls,
           const ServiceOptions& options) {
  const auto check = std::make_shared<CallerCheck>(options.callers, daemonSocket(options.daemon_socket));
  listener.setAcceptHandler([check](const xpc::PeerCredentials& peer) { return (*check)(peer); });
  listener.setConnectionHandler(
      [calls](const std::shared_ptr<xpc::Connection>& connection) { calls->serve(connection); });
  listener.resume();
}

}  // namespace

/// One of `listener` (declared) and `registration` (checked in) is there. Constant after construction.
struct Service::Parts {
  Parts(ServiceHandler& handler, ServiceDirectories directories)
      : calls(std::make_shared<HandlerCalls>(handler, std::move(directories))) {}
  ~Parts() {
    if (registration) registration->end();
    if (listener) listener->invalidate();
    calls->end();
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  const std::shared_ptr<HandlerCalls> calls;
  std::shared_ptr<xpc::Listener> listener;
  std::shared_ptr<Registration> registration;
};

Result<std::unique_ptr<Service>> Service::start(ServiceHandler& handler, const ServiceOptions& options) {
  if (options.id.empty()) return Error{Failure::badRequest, "a service needs an ID"};
  if (!options.socket_path.empty() && !options.passed_socket.empty())
    return Error{Failure::badRequest, "a service serves one socket, not two"};
  Result<ServiceDirectories> directories = ServiceDirectories::of(options);
  if (!directories) return directories.error();
  auto parts = std::make_unique<Parts>(handler, *std::move(directories));
  if (options.socket_path.empty() && options.passed_socket.empty()) {
    parts->registration = std::make_shared<Registration>(parts->calls, options);
    parts->registration->start();
  } else {
    std::string reason;
    parts->listener = declaredListener(options, reason);
    if (parts->listener == nullptr) return Error{Failure::badRequest, "the service's socket: " + reason};
    serve(*parts->listener, parts->calls, options);
    parts->calls->report(ServiceState::serving, "");
  }
  return std::unique_ptr<Service>(new Service(std::move(parts)));
}

ServiceHandler::~ServiceHandler() = default;

Service::Service(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
Service::~Service() = default;

std::optional<std::chrono::steady_clock::time_point> Service::idleSince() const {
  return parts_->calls->idleSince();
}

/// While the listener is paused no connection is accepted, so an idle service stays idle.
bool Service::pauseIfIdle() {
  if (parts_->listener == nullptr || !parts_->listener->pauseIfNobodyWaits()) return false;
  if (idleSince()) return true;
  parts_->listener->goOn();
  return false;
}

void Service::resume() {
  if (parts_->listener != nullptr) parts_->listener->goOn();
}

void Service::cancelPurges() { parts_->calls->cancelPurges(); }

}  // namespace kelvane::client
