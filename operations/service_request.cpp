#include "operations/service_request.h"

namespace kelvane {

void endRequest(InFlight& requests, const std::string& identifier) {
  const auto found = requests.find(identifier);
  if (found == requests.end()) return;
  found->second();
  requests.erase(found);
}

void endRequests(InFlight& requests) {
  for (const auto& [identifier, end] : requests) end();
  requests.clear();
}

void ServiceRequest::open(Call call) {
  call(
      service_,
      [this](const std::shared_ptr<KelvaneServiceProtocol>& proxy, const Done& done) {
        if (!mark(done)) {
          done();
          return;
        }
        dispatch_group_enter(group_);
        has_entered_group_ = true;
        send(*proxy);
      },
      [self = shared_from_this()] { self->connectionEnded(); });
}

std::function<void(const std::optional<Dictionary>& reply)> ServiceRequest::replyHandler() {
  return [self = shared_from_this()](const std::optional<Dictionary>& reply) { self->replied(reply); };
}

void ServiceRequest::leaveGroup() {
  if (has_entered_group_) dispatch_group_leave(group_);
}

}  // namespace kelvane
