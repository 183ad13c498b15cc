#pragma once

// The two remote interfaces. Both are spoken over one connection each: the daemon serves
// KelvaneClientProtocol, every service serves KelvaneServiceProtocol. docs/wire-protocol.md shows them from
// outside.

#include <cstdint>
#include <optional>
#include <string>

#include "kelvane/value.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/remote_interface.h"

namespace kelvane {

using xpc::Reply;

class KelvaneClientProtocol {
 public:
  virtual ~KelvaneClientProtocol() = default;
  virtual void clientCheckin(std::string serviceID, xpc::Endpoint endpoint, Dictionary info,
                             Reply<std::optional<Dictionary>> reply) = 0;
  virtual void clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) = 0;
  virtual void clientItemizedPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) = 0;
  virtual void clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) = 0;
  virtual void clientCancelPurge(Dictionary info, Reply<> reply) = 0;
  virtual void clientSetState(Value value, std::string key, Reply<> reply) = 0;
  virtual void clientGetState(xpc::Anything key, Reply<Value> reply) = 0;
};

class KelvaneServiceProtocol {
 public:
  virtual ~KelvaneServiceProtocol() = default;
  virtual void servicePurgeable(std::int32_t urgency, Dictionary info,
                                Reply<std::optional<Dictionary>> reply) = 0;
  virtual void servicePurge(std::int32_t urgency, Dictionary info,
                            Reply<std::optional<Dictionary>> reply) = 0;
  virtual void servicePeriodic(std::int32_t urgency, Dictionary info,
                               Reply<std::optional<Dictionary>> reply) = 0;
  virtual void serviceCancelPurge(Reply<> reply) = 0;
  virtual void servicePing(Reply<> reply) = 0;
  virtual void serviceNotify(Dictionary notification, Reply<> reply) = 0;
  virtual void serviceCallback(Dictionary info, Reply<std::optional<Dictionary>> reply) = 0;
};

class KelvaneClientProxy final : public KelvaneClientProtocol, private xpc::ProxyBase {
 public:
  using ProxyBase::ProxyBase;
  void clientCheckin(std::string serviceID, xpc::Endpoint endpoint, Dictionary info,
                     Reply<std::optional<Dictionary>> reply) override;
  void clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void clientItemizedPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void clientCancelPurge(Dictionary info, Reply<> reply) override;
  void clientSetState(Value value, std::string key, Reply<> reply) override;
  void clientGetState(xpc::Anything key, Reply<Value> reply) override;
};

class KelvaneServiceProxy final : public KelvaneServiceProtocol, private xpc::ProxyBase {
 public:
  using ProxyBase::ProxyBase;
  void servicePurgeable(std::int32_t urgency, Dictionary info,
                        Reply<std::optional<Dictionary>> reply) override;
  void servicePurge(std::int32_t urgency, Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void servicePeriodic(std::int32_t urgency, Dictionary info,
                       Reply<std::optional<Dictionary>> reply) override;
  void serviceCancelPurge(Reply<> reply) override;
  void servicePing(Reply<> reply) override;
  void serviceNotify(Dictionary notification, Reply<> reply) override;
  void serviceCallback(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
};

}  // namespace kelvane

template <>
struct kelvane::xpc::RemoteInterface<kelvane::KelvaneClientProtocol> {
  using Proxy = KelvaneClientProxy;
  static const InterfaceDescription& description();
};
template <>
struct kelvane::xpc::RemoteInterface<kelvane::KelvaneServiceProtocol> {
  using Proxy = KelvaneServiceProxy;
  static const InterfaceDescription& description();
};
