#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "interface/client_interface.h"
#include "platform/foundation/property_list.h"
#include "platform/xpc/listener.h"
#include "support/entitlements.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/operations/answer.h"
#include "tests/operations/fake_service.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {

/// A central object with nothing in it but what the interface needs.
class Registry final : public ClientInterface {
 public:
  [[nodiscard]] const dispatch_queue_t& collection_queue() const override { return collection_queue_; }
  [[nodiscard]] const dispatch_queue_t& defaults_queue() const override { return defaults_queue_; }
  [[nodiscard]] const dispatch_queue_t& purge_queue() const override { return purge_queue_; }
  [[nodiscard]] const dispatch_queue_t& purgeable_queue() const override { return purgeable_queue_; }
  [[nodiscard]] const dispatch_queue_t& notify_queue() const override { return notify_queue_; }
  [[nodiscard]] const dispatch_queue_t& daemons_queue() const override { return daemons_queue_; }
  [[nodiscard]] Services& services() override { return services_; }
  [[nodiscard]] const std::set<std::string>& daemons() const override { return daemons_; }
  [[nodiscard]] std::optional<PurgeOperations>& purgeOperations() override { return purge_operations_; }
  [[nodiscard]] const std::shared_ptr<UserDefaults>& userDefaults() const override { return user_defaults_; }
  [[nodiscard]] const Dictionary& default_values() const override { return default_values_; }
  [[nodiscard]] Services copyServices() override {
    return dispatch_sync(collection_queue_, [this] { return services_; });
  }

  // Before it is used.
  std::set<std::string> daemons_;
  std::shared_ptr<UserDefaults> user_defaults_;
  Dictionary default_values_{{KELVANE_CACHE_ENABLED, true}};

 private:
  const dispatch_queue_t collection_queue_ = dispatch_queue_create("collection");
  const dispatch_queue_t defaults_queue_ = dispatch_queue_create("defaults");
  const dispatch_queue_t purge_queue_ = dispatch_queue_create("purge");
  const dispatch_queue_t purgeable_queue_ = dispatch_queue_create("purgeable");
  const dispatch_queue_t notify_queue_ = dispatch_queue_create("notify");
  const dispatch_queue_t daemons_queue_ = dispatch_queue_create("daemons");
  Services services_;
  std::optional<PurgeOperations> purge_operations_;
};

using DictionaryAnswer = Answer<std::optional<Dictionary>>;

/// A process that calls the daemon over its socket.
class Caller {
 public:
  explicit Caller(const std::string& path) : connection_(xpc::Connection::initWithSocketPath(path)) {
    proxy_ = connection_->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>(
        [errors = errors_, failures = failures_](const xpc::Error& error) mutable {
          failures.come(error.message);
          errors.come(error.name);
        });
    connection_->resume();
  }
  ~Caller() { connection_->invalidate(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  [[nodiscard]] KelvaneClientProtocol& proxy() { return *proxy_; }
  void invalidate() { connection_->invalidate(); }
  /// The first call that got no answer.
  [[nodiscard]] const Answer<std::string>& error() const { return errors_; }
  /// Its text.
  [[nodiscard]] std::string failure() const { return failures_.await(); }

  DictionaryAnswer checkIn(const std::string& ID, const xpc::Endpoint& endpoint, const Dictionary& info) {
    return dictionary([&](auto reply) { proxy_->clientCheckin(ID, endpoint, info, reply); });
  }
  DictionaryAnswer purge(const Dictionary& info) {
    return dictionary([&](auto reply) { proxy_->clientPurge(info, reply); });
  }
  DictionaryAnswer purgeableSpace(const Dictionary& info) {
    return dictionary([&](auto reply) { proxy_->clientPurgeableSpace(info, reply); });
  }
  DictionaryAnswer itemizedPurgeableSpace(const Dictionary& info) {
    return dictionary([&](auto reply) { proxy_->clientItemizedPurgeableSpace(info, reply); });
  }
  void cancel(const Dictionary& info) {
    Answer<bool> answer;
    proxy_->clientCancelPurge(info, [answer]() mutable { answer.come(true); });
    answer.await();
  }

 private:
  template <class Call>
  DictionaryAnswer dictionary(Call call) {
    DictionaryAnswer answer;
    call([answer](const std::optional<Dictionary>& result) mutable { answer.come(result); });
    return answer;
  }

  const std::shared_ptr<xpc::Connection> connection_;
  std::shared_ptr<KelvaneClientProtocol> proxy_;
  Answer<std::string> errors_;
  Answer<std::string> failures_;
};

/// The interface behind a real socket, with the entitlements that the test grants to its own user.
class InterfaceFixture : public testing::Test {
 protected:
  InterfaceFixture() {
    volumes_.add("/data", {1000, 2000, 0, 0});
    grant({SERVICE_ENTITLEMENT, PURGE_ENTITLEMENT, PURGEABLE_ENTITLEMENT, ITEMIZED_PURGEABLE_ENTITLEMENT});
  }

  void serve() {
    std::string reason;
    listener_ = xpc::Listener::initWithSocketPath(socketPath(), 0600, reason);
    ASSERT_NE(listener_, nullptr) << reason;
    listener_->setConnectionHandler(
        [registry = registry_](const std::shared_ptr<xpc::Connection>& connection) {
          connection->setExportedObject<KelvaneClientProtocol>(registry);
          connection->resume();
        });
    listener_->resume();
  }
  void SetUp() override { serve(); }
  void TearDown() override {
    services_.clear();
    callers_.clear();
    listener_.reset();
    awaitNoConnections();
    std::weak_ptr<Registry> registry = registry_;
    registry_.reset();
    while (!registry.expired()) std::this_thread::yield();
  }

  void grant(const std::vector<std::string>& names) {
    Array listed;
    for (const std::string& name : names) listed.append(name);
    const Dictionary file{{"user", std::uint64_t{::getuid()}}, {entitlements_key, listed}};
    directory_.write("entitlements.d/test.plist", propertyListXML(file).xml);
    loadEntitlementGrants({directory_ / "entitlements.d"});
  }
  [[nodiscard]] std::string socketPath() const { return directory_ / "kelvane.sock"; }

  FakeService& service(const std::string& ID) {
    services_.push_back(std::make_unique<FakeService>(ID));
    return *services_.back();
  }
  Caller& caller() {
    callers_.push_back(std::make_unique<Caller>(socketPath()));
    return *callers_.back();
  }
  /// Puts a record of it into the registry without a check-in.
  FakeService& registered(const std::string& ID) {
    FakeService& it = service(ID);
    dispatch_sync(registry_->collection_queue(), [&] { registry_->services()[ID] = it.record(); });
    return it;
  }
  [[nodiscard]] std::shared_ptr<KVService> record(const std::string& ID) {
    const Services services = registry_->copyServices();
    const auto found = services.find(ID);
    return found != services.end() ? found->second : nullptr;
  }
  void awaitRemoval(const std::string& ID) {
    while (record(ID) != nullptr) std::this_thread::yield();
  }

  tests::LogCapture log_;
  FakeVolumes volumes_;
  test::TemporaryDirectory directory_;
  std::shared_ptr<Registry> registry_ = std::make_shared<Registry>();
  std::shared_ptr<xpc::Listener> listener_;
  std::vector<std::unique_ptr<FakeService>> services_;
  std::vector<std::unique_ptr<Caller>> callers_;
};

}  // namespace kelvane::tests
