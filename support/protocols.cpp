#include "support/protocols.h"

#include <utility>

namespace kelvane {

using Client = KelvaneClientProtocol;
using Service = KelvaneServiceProtocol;

void KelvaneClientProxy::clientCheckin(std::string serviceID, xpc::Endpoint endpoint, Dictionary info,
                                       Reply<std::optional<Dictionary>> reply) {
  send<&Client::clientCheckin>("clientCheckin", std::move(reply), serviceID, endpoint, info);
}
void KelvaneClientProxy::clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) {
  send<&Client::clientPurgeableSpace>("clientPurgeableSpace", std::move(reply), info);
}
void KelvaneClientProxy::clientItemizedPurgeableSpace(Dictionary info,
                                                      Reply<std::optional<Dictionary>> reply) {
  send<&Client::clientItemizedPurgeableSpace>("clientItemizedPurgeableSpace", std::move(reply), info);
}
void KelvaneClientProxy::clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) {
  send<&Client::clientPurge>("clientPurge", std::move(reply), info);
}
void KelvaneClientProxy::clientCancelPurge(Dictionary info, Reply<> reply) {
  send<&Client::clientCancelPurge>("clientCancelPurge", std::move(reply), info);
}
void KelvaneClientProxy::clientSetState(Value value, std::string key, Reply<> reply) {
  send<&Client::clientSetState>("clientSetState", std::move(reply), value, key);
}
void KelvaneClientProxy::clientGetState(xpc::Anything key, Reply<Value> reply) {
  send<&Client::clientGetState>("clientGetState", std::move(reply), key);
}

void KelvaneServiceProxy::servicePurgeable(std::int32_t urgency, Dictionary info,
                                           Reply<std::optional<Dictionary>> reply) {
  send<&Service::servicePurgeable>("servicePurgeable", std::move(reply), urgency, info);
}
void KelvaneServiceProxy::servicePurge(std::int32_t urgency, Dictionary info,
                                       Reply<std::optional<Dictionary>> reply) {
  send<&Service::servicePurge>("servicePurge", std::move(reply), urgency, info);
}
void KelvaneServiceProxy::servicePeriodic(std::int32_t urgency, Dictionary info,
                                          Reply<std::optional<Dictionary>> reply) {
  send<&Service::servicePeriodic>("servicePeriodic", std::move(reply), urgency, info);
}
void KelvaneServiceProxy::serviceCancelPurge(Reply<> reply) {
  send<&Service::serviceCancelPurge>("serviceCancelPurge", std::move(reply));
}
void KelvaneServiceProxy::servicePing(Reply<> reply) {
  send<&Service::servicePing>("servicePing", std::move(reply));
}
void KelvaneServiceProxy::serviceNotify(Dictionary notification, Reply<> reply) {
  send<&Service::serviceNotify>("serviceNotify", std::move(reply), notification);
}
void KelvaneServiceProxy::serviceCallback(Dictionary info, Reply<std::optional<Dictionary>> reply) {
  send<&Service::serviceCallback>("serviceCallback", std::move(reply), info);
}

}  // namespace kelvane

namespace kelvane::xpc {

const InterfaceDescription& RemoteInterface<KelvaneClientProtocol>::description() {
  static const InterfaceDescription it{
      "/com/orvel/kelvane",
      "com.orvel.KelvaneClientProtocol",
      {
          method<&Client::clientCheckin>("clientCheckin", {"id", "endpoint", "info"}, {"result"}),
          method<&Client::clientPurgeableSpace>("clientPurgeableSpace", {"info"}, {"result"}),
          method<&Client::clientItemizedPurgeableSpace>("clientItemizedPurgeableSpace", {"info"}, {"result"}),
          method<&Client::clientPurge>("clientPurge", {"info"}, {"result"}),
          method<&Client::clientCancelPurge>("clientCancelPurge", {"info"}),
          method<&Client::clientSetState>("clientSetState", {"value", "key"}),
          method<&Client::clientGetState>("clientGetState", {"key"}, {"value"}),
      }};
  return it;
}

const InterfaceDescription& RemoteInterface<KelvaneServiceProtocol>::description() {
  static const InterfaceDescription it{
      "/com/orvel/kelvane/service",
      "com.orvel.KelvaneServiceProtocol",
      {
          method<&Service::servicePurgeable>("servicePurgeable", {"urgency", "info"}, {"result"}),
          method<&Service::servicePurge>("servicePurge", {"urgency", "info"}, {"result"}),
          method<&Service::servicePeriodic>("servicePeriodic", {"urgency", "info"}, {"result"}),
          method<&Service::serviceCancelPurge>("serviceCancelPurge"),
          method<&Service::servicePing>("servicePing"),
          method<&Service::serviceNotify>("serviceNotify", {"notification"}),
          method<&Service::serviceCallback>("serviceCallback", {"info"}, {"result"}),
      }};
  return it;
}

}  // namespace kelvane::xpc
