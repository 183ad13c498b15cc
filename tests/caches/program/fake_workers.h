#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "caches/workers.h"

namespace kelvane::tests {

/// Workers that give prepared answers and record their calls.
class FakeWorkers final : public caches::Workers {
 public:
  struct Asked {
    std::string holder;
    std::string volume;
    int urgency = 0;
    std::uint64_t amount = 0;
    std::chrono::steady_clock::time_point deadline;
  };

  void answer(const std::string& holder, caches::HolderReport report) {
    reports_[holder] = std::move(report);
  }
  [[nodiscard]] const std::vector<Asked>& asked() const { return asked_; }

  caches::HolderReport survey(const std::string& holder, const std::string& volume,
                              const client::CacheLimits& limits) override {
    return remember({holder, volume, 0, 0, limits.deadline});
  }
  caches::HolderReport purge(const std::string& holder, const std::string& volume, int urgency,
                             std::uint64_t amount, const client::CacheLimits& limits) override {
    return remember({holder, volume, urgency, amount, limits.deadline});
  }
  caches::HolderReport list(const std::string& holder, const std::string& volume, int urgency,
                            std::uint64_t amount, const client::CacheLimits& limits,
                            const Item& /*item*/) override {
    return remember({holder, volume, urgency, amount, limits.deadline});
  }

 private:
  caches::HolderReport remember(Asked asked) {
    asked_.push_back(asked);
    return reports_[asked.holder];
  }

  std::map<std::string, caches::HolderReport> reports_;
  std::vector<Asked> asked_;
};

}  // namespace kelvane::tests
