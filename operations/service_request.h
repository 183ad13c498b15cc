#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "kelvane/value.h"
#include "platform/dispatch/group.h"
#include "support/service_calls.h"

namespace kelvane {

/// Requests that have been sent, by service identifier, each with the callback that ends it.
using InFlight = std::map<std::string, Done>;
/// Ends and removes one request, if it is there, or all of them.
void endRequest(InFlight& requests, const std::string& identifier);
void endRequests(InFlight& requests);

/// One request to one service, on a connection of its own, from opening the connection to its end. The
/// connection's handlers keep it alive. The group counts it from `mark` until the connection has
/// ended.
class ServiceRequest : public std::enable_shared_from_this<ServiceRequest> {
 public:
  ServiceRequest(std::shared_ptr<KVService> service, dispatch_group_t group)
      : service_(std::move(service)), group_(std::move(group)) {}
  virtual ~ServiceRequest() = default;
  ServiceRequest(const ServiceRequest&) = delete;
  ServiceRequest& operator=(const ServiceRequest&) = delete;

  /// `CallServiceAsync` or `CallService`.
  using Call = void (*)(const std::shared_ptr<KVService>&, const RequestHandler&, Block);
  /// Opens the connection, marks the request and sends it, on the calling thread.
  void open(Call call);

 protected:
  /// Stores the callback that ends the request. False if it must not be sent; the connection is then ended.
  virtual bool mark(const Done& end) = 0;
  virtual void send(KelvaneServiceProtocol& proxy) = 0;
  /// On the connection's queue, at most once.
  virtual void replied(const std::optional<Dictionary>& reply) = 0;
  /// On the connection's queue, once, after all else: logs the end and leaves the group.
  virtual void connectionEnded() = 0;

  /// Calls `replied`.
  [[nodiscard]] std::function<void(const std::optional<Dictionary>& reply)> replyHandler();
  /// Leaves the group if it was entered.
  void leaveGroup();

  [[nodiscard]] const std::shared_ptr<KVService>& service() const { return service_; }
  [[nodiscard]] const dispatch_group_t& group() const { return group_; }

 private:
  const std::shared_ptr<KVService> service_;
  const dispatch_group_t group_;
  bool has_entered_group_ = false;  // set before the request is sent
};

}  // namespace kelvane
