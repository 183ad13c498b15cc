#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/keys.h"
#include "daemon/kelvane.h"
#include "platform/foundation/property_list.h"
#include "support/entitlements.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {

/// A file system root, a runtime and a state directory of the test's own, and the central objects made there.
class DaemonFixture : public testing::Test {
 protected:
  static constexpr const char* system_folder = "System/Library/Kelvane/";
  static constexpr const char* internal_folder = "OrvelInternal/Library/Kelvane/";

  DaemonFixture() {
    const Dictionary grant{
        {"user", std::uint64_t{::getuid()}},
        {entitlements_key, Array{CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT, SERVICE_ENTITLEMENT}}};
    directory_.write("entitlements.d/test.plist", propertyListXML(grant).xml);
    loadEntitlementGrants({directory_ / "entitlements.d"});
  }
  void TearDown() override {
    for (const auto& each : made_) {
      if (const auto kelvane = each.lock()) kelvane->setListener(nullptr);
    }
    awaitNoConnections();
    for (const auto& each : made_) {
      while (!each.expired()) std::this_thread::yield();
    }
  }

  [[nodiscard]] Environment environment() const { return {directory_.path(), directory_ / internal_folder}; }
  std::shared_ptr<Kelvane> kelvane() {
    auto kelvane = Kelvane::init(environment());
    made_.push_back(kelvane);
    return kelvane;
  }
  void descriptor(const std::string& file, const Value& list) const {
    directory_.write(file, propertyListXML(list).xml);
  }
  [[nodiscard]] std::string systemFile(const std::string& name) const { return system_folder + name; }
  [[nodiscard]] std::string internalFile(const std::string& name) const { return internal_folder + name; }

  LogCapture log_;
  FakeVolumes volumes_;
  test::TemporaryDirectory directory_;
  const ScopedEnvironment runtime_{"RUNTIME_DIRECTORY", directory_.path()};
  const ScopedEnvironment state_{"STATE_DIRECTORY", directory_.path()};
  std::vector<std::weak_ptr<Kelvane>> made_;
};

}  // namespace kelvane::tests
