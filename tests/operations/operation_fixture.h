#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "operations/operation.h"
#include "operations/timebase.h"
#include "platform/dispatch/manual_clock.h"
#include "tests/operations/fake_service.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {

/// Operations on a volume "/data" with 1000 bytes free, on a clock that stands still. In the end nothing may
/// be left: no operation, no connection, no timer.
template <class Operation>
class OperationFixture : public testing::Test {
 protected:
  OperationFixture() {
    gTimebaseConversion = 1.0;
    volumes_.add("/data", {1000, 2000, 0, 0});
  }
  ~OperationFixture() override { gTimebaseConversion = 0.0; }

  void TearDown() override {
    services_.clear();
    for (const auto& operation : made_) {
      while (!operation.expired()) std::this_thread::yield();
    }
    awaitNoConnections();
  }

  FakeService& service(const std::string& ID) {
    services_.push_back(std::make_unique<FakeService>(ID));
    registry_[ID] = services_.back()->record();
    return *services_.back();
  }
  /// Watches that it is gone in the end.
  std::shared_ptr<Operation> made(const std::shared_ptr<Operation>& operation) {
    made_.push_back(operation);
    return operation;
  }

  LogCapture log_;
  FakeVolumes volumes_;
  ManualClock clock_;
  std::vector<std::unique_ptr<FakeService>> services_;
  Services registry_;
  std::vector<std::weak_ptr<Operation>> made_;
};

}  // namespace kelvane::tests
