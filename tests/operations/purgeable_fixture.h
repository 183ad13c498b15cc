#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "operations/purgeable_operation.h"
#include "platform/foundation/archive.h"
#include "platform/host/time.h"
#include "support/statistics.h"
#include "tests/operations/operation_fixture.h"

namespace kelvane::tests {

/// A state in memory that stores and returns as the real one does: records as their archives.
class MemoryState final : public PersistentState {
 public:
  [[nodiscard]] const dispatch_queue_t& defaults_queue() const override { return queue_; }
  [[nodiscard]] StateObject clientGetStateSync(const std::string& key) override {
    dispatch_assert_queue(queue_);
    ++reads_;
    const Value& value = state_[key];
    if (value.data() == nullptr) return value;
    if (auto record = unarchivedRecentInfo(*value.data())) return record;
    return unarchivedValue(*value.data());
  }
  void clientSetStateSync(const StateObject& value, const std::string& key) override {
    dispatch_assert_queue(queue_);
    ++writes_;
    const auto* const record = std::get_if<std::shared_ptr<KelvaneRecentInfo>>(&value);
    state_.set(key, record != nullptr ? Value(archivedData(**record)) : std::get<Value>(value));
  }
  void settleState() override { dispatch_assert_queue(queue_); }

  // From any thread but one of the queue.
  void set(const StateObject& value) {
    dispatch_sync(queue_, [&] { clientSetStateSync(value, KELVANE_RECENT_SERVICE_STATS); });
    dispatch_sync(queue_, [&] { writes_ = 0; });
  }
  [[nodiscard]] Value raw() {
    return dispatch_sync(queue_, [&] { return state_[KELVANE_RECENT_SERVICE_STATS]; });
  }
  /// Null when there is none.
  [[nodiscard]] std::shared_ptr<KelvaneRecentInfo> record() {
    const Value stored = raw();
    return stored.data() != nullptr ? unarchivedRecentInfo(*stored.data()) : nullptr;
  }
  [[nodiscard]] int reads() {
    return dispatch_sync(queue_, [&] { return reads_; });
  }
  [[nodiscard]] int writes() {
    return dispatch_sync(queue_, [&] { return writes_; });
  }

 private:
  const dispatch_queue_t queue_ = dispatch_queue_create("defaults");
  Dictionary state_;  // all below only on queue_
  int reads_ = 0;
  int writes_ = 0;
};

class PurgeableFixture : public OperationFixture<KelvanePurgeableOperation> {
 protected:
  using OperationFixture::service;
  FakeService& service(const std::string& ID, std::uint64_t amount) {
    FakeService& it = service(ID);
    it.answersPurgeable(Dictionary{{KELVANE_AMOUNT, amount}});
    return it;
  }
  static Dictionary info(std::int32_t urgency = 3) {
    return {{KELVANE_VOLUME, "/data"}, {KELVANE_URGENCY, urgency}};
  }
  std::shared_ptr<KelvanePurgeableOperation> operation(std::int32_t urgency = 3) {
    return made(KelvanePurgeableOperation::initWithInfo(info(urgency), registry_, state_));
  }
  static Dictionary run(KelvanePurgeableOperation& operation) {
    std::vector<Dictionary> results;
    operation.startOperation([&](const Dictionary& result) { results.push_back(result); });
    EXPECT_EQ(results.size(), 1U);
    return results.back();
  }
  Dictionary ask() { return run(*operation()); }

  static KelvaneRecentServiceInfo figure(const Value& amount) {
    return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(amount, currentDate());
  }
  static KelvaneRecentVolumeInfo volume(RecentServices services, const std::string& name = "/data") {
    return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), 1000, currentDate(), name);
  }
  /// Figures that are in the record already.
  void remember(RecentServices services) {
    state_->set(KelvaneRecentInfo::kelvaneRecentInfo({{"/data", volume(std::move(services))}}));
  }

  std::shared_ptr<MemoryState> state_ = std::make_shared<MemoryState>();
};

}  // namespace kelvane::tests
