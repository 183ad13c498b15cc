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
          method<&Client::clientCheckin>("clientCheckin"),
          method<&Client::clientPurgeableSpace>("clientPurgeableSpace"),
          method<&Client::clientItemizedPurgeableSpace>("clientItemizedPurgeableSpace"),
          method<&Client::clientPurge>("clientPurge"),
          method<&Client::clientCancelPurge>("clientCancelPurge"),
          method<&Client::clientSetState>("clientSetState"),
          method<&Client::clientGetState>("clientGetState"),
      }};
  return it;
}

const InterfaceDescription& RemoteInterface<KelvaneServiceProtocol>::description() {
  static const InterfaceDescription it{"/com/orvel/kelvane/service",
                                       "com.orvel.KelvaneServiceProtocol",
                                       {
                                           method<&Service::servicePurgeable>("servicePurgeable"),
                                           method<&Service::servicePurge>("servicePurge"),
                                           method<&Service::servicePeriodic>("servicePeriodic"),
                                           method<&Service::serviceCancelPurge>("serviceCancelPurge"),
                                           method<&Service::servicePing>("servicePing"),
                                           method<&Service::serviceNotify>("serviceNotify"),
                                           method<&Service::serviceCallback>("serviceCallback"),
                                       }};
  return it;
}

}  // namespace kelvane::xpc
