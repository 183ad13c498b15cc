// Services that check in, the daemon's connections back to them, and the notifications sent to them.
//
// The record of a service that checked in lives in the registry until its connection ends, in whichever way.
// The connection's handlers outlive the record at times, and the ID may by then belong to a new record: they
// remove the very record that they were made for, or nothing.

#include <fmt/format.h>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "common/keys.h"
#include "interface/caller.h"
#include "interface/client_interface.h"
#include "interface/limits.h"
#include "platform/dispatch/suspension.h"
#include "platform/foundation/footprint.h"
#include "support/log.h"
#include "support/service_calls.h"

namespace kelvane {
namespace {

constexpr const char* checkin_selector = "clientCheckin:endpoint:info:reply:";
constexpr const char* ping_selector = "pingService:";
constexpr const char* notify_selector = "notifyRecipients:value:";

/// Nothing unless the value is an array; what is no string in it names no notification.
std::optional<std::set<std::string>> notificationNames(const Value& value) {
  if (value.array() == nullptr) return std::nullopt;
  std::set<std::string> names;
  for (const Value& name : *value.array()) {
    if (name.string() != nullptr) names.insert(*name.string());
  }
  return names;
}

void takeFlags(KVService& service, const Dictionary& info) {
  service.setDoesPeriodic(info[service_kind_periodic].boolValue());
  service.setDoesPurge(info[service_kind_purge].boolValue());
  service.setDesiredNotifications(notificationNames(info[KELVANE_NOTIFICATIONS]));
}

/// The result of one ping. Destroying it unanswered means false: when a connection ends,
/// its calls drop their replies uncalled.
class Pong {
 public:
  explicit Pong(std::function<void(bool pong)> finished) : finished_(std::move(finished)) {}
  ~Pong() {
    if (finished_) finished_(false);
  }
  Pong(const Pong&) = delete;
  Pong& operator=(const Pong&) = delete;

  void arrive() { std::exchange(finished_, nullptr)(true); }

 private:
  std::function<void(bool pong)> finished_;  // empty after the call
};

/// Sends one notification, and after its answer those that had to wait. On `queue`.
void notify(const std::shared_ptr<KVService>& service, const NotificationOutbox::Notification& notification,
            const dispatch_queue_t& queue) {
  CallServiceAsync(
      service,
      [&](const std::shared_ptr<KelvaneServiceProtocol>& proxy, const Done& done) {
        KVLog(5, "%s %d serviceID: %@", notify_selector, 369, service->ID());
        proxy->serviceNotify(Dictionary{{notification.name, notification.value}}, [done] { done(); });
      },
      [service, queue] {
        KVLog(5, "%s connection invalidated", notify_selector);
        if (auto next = service->notifications().finish())
          dispatch_async(queue, [service, queue, next = *std::move(next)] { notify(service, next, queue); });
      });
}

void notifyAll(const Services& services, const NotificationOutbox::Notification& notification,
               const dispatch_queue_t& queue) {
  for (const auto& [serviceID, service] : services) {
    if (!service->desiresNotification(notification.name)) {
      service->notifications().drop(notification.name);
    } else if (service->notifications().start(notification)) {
      notify(service, notification, queue);
    }
  }
}

/// Why the user cannot have what a check-in asks for; empty when it can.
std::string excessIn(const std::string& serviceID, const Dictionary& info) {
  if (serviceID.size() > longest_service_ID) {
    return fmt::format("the ID of the service has {} bytes: expected at most {}", serviceID.size(),
                       longest_service_ID);
  }
  if (foundation::footprint(info[KELVANE_NOTIFICATIONS]) > largest_wishes)
    return fmt::format("the names of the notifications take more than {} bytes of memory", largest_wishes);
  return {};
}

/// Charges the user for the record; false, and the call is refused, when that would exceed the limit.
bool payFor(KVService& service, const xpc::CurrentCall& call) {
  const auto account = call.account();
  if (account == nullptr) return true;
  wire::Charge cost = wire::Charge::of(account, wire::Resource::services, 1);
  if (!cost) {
    call.refuse(xpc::error_limits_exceeded,
                fmt::format("user {} has {} services registered, which is the limit", account->user(),
                            account->limit(wire::Resource::services)));
    return false;
  }
  service.setCost(std::move(cost));
  return true;
}

}  // namespace

struct ClientInterface::CheckIn {
  xpc::CurrentCall call;
  std::string serviceID;
  xpc::Endpoint endpoint;
  Dictionary info;
  Reply<std::optional<Dictionary>> reply;

  void finish(KVService& service) const {
    takeFlags(service, info);
    reply(Dictionary{{KELVANE_ID, serviceID}, {checkin_reply_anonymous, true}});
  }
};

void ClientInterface::clientCheckin(std::string serviceID, xpc::Endpoint endpoint, Dictionary info,
                                    Reply<std::optional<Dictionary>> reply) {
  const bool is_declared = dispatch_sync(daemons_queue(), [&] { return daemons().contains(serviceID); });
  if (is_declared) {
    reply(std::nullopt);
    return;
  }
  if (!callerIsEntitled(SERVICE_ENTITLEMENT, checkin_selector)) return;  // no answer at all
  auto call = xpc::currentCall();
  if (!endpoint) {
    call.refuse(xpc::error_invalid_arguments, "the endpoint is not a connected local SOCK_SEQPACKET socket");
    return;
  }
  if (const std::string excess = excessIn(serviceID, info); !excess.empty()) {
    call.refuse(xpc::error_limits_exceeded, excess);
    return;
  }
  CheckIn request{std::move(call), std::move(serviceID), std::move(endpoint), std::move(info),
                  std::move(reply)};
  dispatch_async(collection_queue(), [self = shared_from_this(), request = std::move(request)]() mutable {
    self->checkIn(std::move(request));
  });
}

/// The registry waits for the ping without holding a thread: its queue is suspended, and
/// resumes with the rest of this check-in.
void ClientInterface::checkIn(CheckIn request) {
  if (const auto found = services().find(request.serviceID); found != services().end()) {
    KVLog(5, "%s operating on an existing service", checkin_selector);
    request.finish(*found->second);
    return;
  }
  const auto service = std::make_shared<KVService>(request.serviceID);
  if (!payFor(*service, request.call)) return;
  service->setEndpoint(request.endpoint);
  const auto proxy = connect(service);
  const auto registry_waits = std::make_shared<Suspension>(collection_queue());
  pingService(proxy, [registry_waits, service, request = std::move(request)](bool /*pong*/) {
    registry_waits->endWith([service, request] { request.finish(*service); });
  });
}

/// Returns the service as the daemon calls it.
std::shared_ptr<KelvaneServiceProtocol> ClientInterface::connect(const std::shared_ptr<KVService>& service) {
  const auto connection = xpc::Connection::initWithListenerEndpoint(service->endpoint());
  service->setXpcConn(connection);
  services()[service->ID()] = service;
  connection->setInvalidationHandler(recordRemoval(service, "%s invalidationHandler ENTRY"));
  connection->setInterruptionHandler(recordRemoval(service, "%s interruptionHandler ENTRY"));
  auto proxy = connection->remoteObjectProxyWithErrorHandler<KelvaneServiceProtocol>(
      [service](const xpc::Error& error) {
        KVLog(5, "%s remoteObjectProxyWithErrorHandler error: %@", checkin_selector, error);
        service->xpcConn()->invalidate();
      });
  connection->resume();
  return proxy;
}

Block ClientInterface::recordRemoval(const std::shared_ptr<KVService>& service, const char* log_text) {
  return [self = shared_from_this(), serviceID = service->ID(), weak = std::weak_ptr(service), log_text] {
    KVLog(5, log_text, checkin_selector);
    dispatch_async(self->collection_queue(), [self, serviceID, weak] {
      const auto record = weak.lock();
      const auto found = self->services().find(serviceID);
      if (record != nullptr && found != self->services().end() && found->second == record)
        self->services().erase(serviceID);
    });
  };
}

void ClientInterface::pingService(const std::shared_ptr<KelvaneServiceProtocol>& proxy,
                                  std::function<void(bool pong)> finished) {
  KVLog(5, "%s calling servicePing", ping_selector);
  proxy->servicePing([pong = std::make_shared<Pong>(std::move(finished))] {
    KVLog(5, "%s ping got pong", ping_selector);
    pong->arrive();
  });
}

void ClientInterface::notifyRecipients(const std::string& name, const Value& value,
                                       const xpc::CurrentCall& call) {
  KVLog(5, "%s name: %@, value: %@", notify_selector, name, value);
  // The registry may be waiting for a service; the caller must not wait with it.
  dispatch_async(collection_queue(), [self = shared_from_this(),
                                      notification = NotificationOutbox::Notification{name, value},
                                      call]() mutable {
    dispatch_async(self->notify_queue(), [snapshot = self->services(), notification = std::move(notification),
                                          call = std::move(call), queue = self->notify_queue()] {
      notifyAll(snapshot, notification, queue);
    });
  });
}

}  // namespace kelvane
