#pragma once

#include <gtest/gtest.h>
#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "operations/purge_operation.h"
#include "operations/timebase.h"
#include "platform/dispatch/manual_clock.h"
#include "support/statistics.h"
#include "tests/operations/fake_service.h"
#include "tests/operations/settling.h"
#include "tests/support/fake_volumes.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {

/// Purges of a volume "/data" with 1000 bytes free, on a clock that stands still. In the end nothing may be
/// left: no operation, no connection, no timer.
class PurgeFixture : public testing::Test {
 protected:
  PurgeFixture() {
    gTimebaseConversion = 1.0;
    volumes_.add("/data", {1000, 2000, 0, 0});
  }
  ~PurgeFixture() override { gTimebaseConversion = 0.0; }

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
  static Dictionary info(std::initializer_list<std::pair<std::string_view, Value>> keys) {
    Dictionary info(keys);
    info.set(KELVANE_VOLUME, "/data");
    return info;
  }
  std::shared_ptr<KelvanePurgeOperation> operation(
      std::initializer_list<std::pair<std::string_view, Value>> keys) {
    auto operation = KelvanePurgeOperation::initWithInfo(info(keys), registry_);
    made_.push_back(operation);
    return operation;
  }

  /// Runs it on this thread; the last that the completion got is the result.
  Dictionary run(KelvanePurgeOperation& operation) {
    operation.startOperation([this](const std::optional<Dictionary>& completed) {
      const std::scoped_lock lock(mutex_);
      completions_.push_back(completed);
    });
    return *completions_.back();
  }
  Dictionary purge(std::initializer_list<std::pair<std::string_view, Value>> keys) {
    const auto it = operation(keys);
    return run(*it);
  }

  static Dictionary passOf(const Dictionary& result, int urgency) {
    const Value& pass = result["KELVANE_URGENCY_" + std::to_string(urgency) + "_OPERATION_INFO"];
    return pass.isDictionary() ? *pass.dictionary() : Dictionary();
  }
  static std::uint64_t reportOf(const Dictionary& pass, const std::string& ID) {
    const Value& reports = pass[KELVANE_REPORTING_SERVICES];
    return reports.isDictionary() ? (*reports.dictionary())[ID].unsignedLongLongValue() : 0;
  }
  static std::int64_t counter(const std::string& name) { return statisticsOf(kelvane_domain).counters[name]; }
  static Distribution distribution(const std::string& name) {
    return statisticsOf(kelvane_domain).distributions[name];
  }

  LogCapture log_;
  FakeVolumes volumes_;
  ManualClock clock_;
  std::vector<std::unique_ptr<FakeService>> services_;
  Services registry_;
  std::vector<std::weak_ptr<KelvanePurgeOperation>> made_;

  std::mutex mutex_;
  std::vector<std::optional<Dictionary>> completions_;  // guarded by mutex_ while an operation runs
};

/// What a service that holds `held` bytes gives.
inline auto upTo(std::uint64_t held) {
  return [left = std::make_shared<std::uint64_t>(held)](std::uint64_t asked) {
    const std::uint64_t given = std::min(asked, *left);
    *left -= given;
    return given;
  };
}

}  // namespace kelvane::tests
