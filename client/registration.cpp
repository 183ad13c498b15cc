#include "client/registration.h"

#include <algorithm>
#include <utility>

#include "client/daemon_socket.h"
#include "common/keys.h"
#include "platform/dispatch/clock.h"
#include "support/protocols.h"

namespace kelvane::client {
namespace {

constexpr std::int64_t millisecond = 1'000'000;
constexpr std::int64_t first_pause = 10 * millisecond;
constexpr std::int64_t longest_pause = 60'000 * millisecond;
constexpr std::int64_t longest_pause_unwatched =
    5'000 * millisecond;  // where the kernel gives no more watches
constexpr std::int64_t answer_in_flight =
    1'000 * millisecond;                                // between the endpoint's closing and the answer
constexpr std::uint64_t lasting = 1'000 * millisecond;  // a registration that was no mere attempt

Dictionary checkinInfo(const ServiceOptions& options) {
  Array names;
  for (const std::string& name : options.notifications) names.append(name);
  return Dictionary{
      {"PURGE", options.purges}, {"PERIODIC", options.periodic}, {KELVANE_NOTIFICATIONS, names}};
}

}  // namespace

Registration::Registration(std::shared_ptr<HandlerCalls> calls, const ServiceOptions& options)
    : calls_(std::move(calls)),
      id_(options.id),
      info_(checkinInfo(options)),
      socket_(daemonSocket(options.daemon_socket)),
      callers_(options.callers) {}

template <class F>
Block Registration::later(F call) {
  return [weak = weak_from_this(), call = std::move(call)] {
    const auto self = weak.lock();
    if (self == nullptr) return;
    dispatch_async(self->queue_, [self, call] { call(*self); });
  };
}

void Registration::start() {
  dispatch_async(queue_, [self = shared_from_this()] {
    if (self->phase_ == Phase::ended) return;
    self->watcher_.emplace(self->socket_, [weak = self->weak_from_this()] {
      if (const auto registration = weak.lock())
        dispatch_async(registration->queue_, [registration] { registration->socketAppeared(); });
    });
    self->attempt();
  });
}

void Registration::end() {
  dispatch_sync(queue_, [this] {
    phase_ = Phase::ended;
    watcher_.reset();
    drop();
  });
}

// --- one attempt ---

void Registration::attempt() {
  drop();
  phase_ = Phase::asking;
  appeared_meanwhile_ = false;
  daemon_ = xpc::Connection::initWithSocketPath(socket_);
  listen(current_);
  if (listener_ == nullptr) {
    wait(ServiceState::waiting, "this process has no descriptors left");
    return;
  }
  checkIn(current_);
}

void Registration::listen(Attempt attempt) {
  called_back_ = std::make_shared<std::atomic<bool>>(false);
  listener_ = xpc::Listener::anonymousListener();
  if (listener_ == nullptr) return;
  std::optional<uid_t> holder;
  if (daemon_->credentials()) holder = daemon_->credentials()->uid;
  listener_->setAcceptHandler([callers = callers_, holder](const xpc::PeerCredentials& peer) {
    return mayCall(peer.uid, callers, holder);
  });
  listener_->setConnectionHandler(
      [calls = calls_, called_back = called_back_](const std::shared_ptr<xpc::Connection>& connection) {
        called_back->store(true);
        calls->serve(connection);
      });
  listener_->setEndpointClosedHandler(later([attempt](Registration& self) { self.endpointClosed(attempt); }));
  listener_->resume();
}

void Registration::checkIn(Attempt attempt) {
  const std::weak_ptr<xpc::Connection> weak = daemon_;
  const auto gone = [attempt, weak](Registration& self) {
    const auto connection = weak.lock();
    self.daemonGone(attempt, connection != nullptr && connection->wasEstablished());
  };
  daemon_->setInterruptionHandler(later(gone));
  daemon_->setInvalidationHandler(later(gone));
  daemon_->resume();
  const auto self = weak_from_this();
  const auto reply = [self, attempt](const std::optional<Dictionary>& answer) {
    const auto registration = self.lock();
    if (registration == nullptr) return;
    dispatch_async(registration->queue_, [=] { registration->answered(attempt, answer); });
  };
  const auto failed = [self, attempt](const xpc::Error& error) {
    const auto registration = self.lock();
    if (registration == nullptr || error.name == xpc::error_disconnected) return;  // the end follows
    dispatch_async(registration->queue_, [=] { registration->refused(attempt, error.description()); });
  };
  const auto proxy = daemon_->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>(failed);
  proxy->clientCheckin(id_, listener_->takeEndpoint(), info_, reply);
}

void Registration::drop() {
  ++current_;
  timer_.cancel();
  if (listener_ != nullptr) std::exchange(listener_, nullptr)->invalidate();
  if (daemon_ != nullptr) std::exchange(daemon_, nullptr)->invalidate();
}

// --- what becomes of it ---

void Registration::answered(Attempt attempt, const std::optional<Dictionary>& answer) {
  // An answer that was thought to be missing is still one.
  if (attempt != current_ || (phase_ != Phase::asking && phase_ != Phase::refused)) return;
  timer_.cancel();
  if (!answer) {
    refused(attempt, "\"" + id_ + "\" is the ID of a declared service");
  } else if (called_back_->load()) {
    phase_ = Phase::registered;
    registered_at_ = Clock::current().now();
    report(ServiceState::registered, "");
  } else {
    wait(ServiceState::waiting,
         "\"" + id_ + "\" is registered to another endpoint, or its caller was not let in");
  }
}

void Registration::endpointClosed(Attempt attempt) {
  if (attempt != current_) return;
  if (phase_ == Phase::registered) wait(ServiceState::waiting, "the daemon has dropped the service");
  if (phase_ != Phase::asking) return;
  timer_ = Timer(dispatch_time(DISPATCH_TIME_NOW, answer_in_flight), queue_, [this, attempt] {
    if (phase_ == Phase::asking)
      refused(attempt, "this process may not be a service: no SERVICE_ENTITLEMENT");
  });
}

void Registration::refused(Attempt attempt, const std::string& reason) {
  if (attempt != current_) return;
  phase_ = Phase::refused;
  report(ServiceState::refused, reason);
}

void Registration::daemonGone(Attempt attempt, bool established) {
  if (attempt != current_) return;
  const bool there = daemon_->credentials().has_value();
  if (there && !established) {
    wait(ServiceState::refused,
         "the daemon does not accept connections from this process: no CLIENT_ENTITLEMENT");
  } else {
    wait(ServiceState::waiting, there ? "the daemon has gone" : "nobody listens on " + socket_);
  }
}

/// Also during an attempt: it may have started before this socket existed, and the next may be a minute away.
void Registration::socketAppeared() {
  if (phase_ == Phase::asking) appeared_meanwhile_ = true;
  if (phase_ != Phase::waiting) return;
  pause_ = first_pause;
  attempt();
}

void Registration::wait(ServiceState state, const std::string& reason) {
  const bool lasted = phase_ == Phase::registered && Clock::current().now() - registered_at_ >= lasting;
  if (lasted) pause_ = 0;
  if (appeared_meanwhile_) pause_ = first_pause;
  phase_ = Phase::waiting;
  drop();
  report(state, reason);
  timer_ = Timer(dispatch_time(DISPATCH_TIME_NOW, pause_), queue_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (self != nullptr && self->phase_ == Phase::waiting) self->attempt();
  });
  const bool watched = watcher_ && watcher_->works();
  pause_ = std::clamp(2 * pause_, first_pause, watched ? longest_pause : longest_pause_unwatched);
}

void Registration::report(ServiceState state, const std::string& reason) {
  auto news = std::make_pair(state, reason);
  if (reported_ == news) return;
  calls_->report(state, reason);
  reported_ = std::move(news);
}

}  // namespace kelvane::client
