#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "operations/purge_operation.h"
#include "support/statistics.h"
#include "tests/operations/operation_fixture.h"

namespace kelvane::tests {

class PurgeFixture : public OperationFixture<KelvanePurgeOperation> {
 protected:
  static Dictionary info(std::initializer_list<std::pair<std::string_view, Value>> keys) {
    Dictionary info(keys);
    info.set(KELVANE_VOLUME, "/data");
    return info;
  }
  std::shared_ptr<KelvanePurgeOperation> operation(
      std::initializer_list<std::pair<std::string_view, Value>> keys) {
    return made(KelvanePurgeOperation::initWithInfo(info(keys), registry_));
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
