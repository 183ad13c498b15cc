#pragma once

// Frees a number of bytes on one volume: passes of rising urgency, in each of which the services are asked
// for equal shares of what is still missing.
//
// `startOperation` blocks its thread and runs the passes there. Requests are sent, and replies accounted for,
// in items of `message_queue`. That queue is suspended while a pass queues its first requests: these run
// before any reply, so all see the same need. A pass is also closed there, never in the middle of an item.
// The working dictionary and the operation-info dictionaries are touched only on `collection_queue`.
//
// A service whose connection ends without a reply stays in the in-flight table: it is not asked again in this
// operation unless a pass times out, and it is not counted among the viable ones.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "operations/operation.h"
#include "operations/purge_pass.h"
#include "support/amount_purged.h"

namespace kelvane {

/// Gets each service's reply (nothing when the reply was nil) and at last the operation's result.
using Completion = std::function<void(const std::optional<Dictionary>& result)>;

class KelvanePurgeOperation final : public KelvaneOperation {
 public:
  /// As the base's, but only with the services that purge.
  static std::shared_ptr<KelvanePurgeOperation> initWithInfo(const Value& info, Services services);
  explicit KelvanePurgeOperation(Key key) : KelvaneOperation(key) {}

  /// Runs the whole purge before it returns. Calls the completion with each reply, on `message_queue`, and
  /// last with the result, on this thread; one call at a time.
  void startOperation(const Completion& completion);

  /// Adds one request to the group, to run on `message_queue`. `operationInfo` is its pass, `urgency` and
  /// `group` are those of that pass.
  void queueServiceRequest(const std::shared_ptr<KVService>& service,
                           const std::shared_ptr<WorkingDictionary>& info, std::int32_t urgency,
                           const std::shared_ptr<PurgePass>& operationInfo, const dispatch_group_t& group,
                           const Completion& completion);

  /// Records how much of a request was met.
  static void reportPercentageForAmountRequested(std::uint64_t requested, std::uint64_t amountPurged,
                                                 const std::string& identifier);

  // Each is safe on any thread.
  [[nodiscard]] bool cancel() const { return cancel_.load(std::memory_order_relaxed); }
  void setCancel(bool cancel) { cancel_.store(cancel, std::memory_order_relaxed); }
  [[nodiscard]] std::uint64_t purge_amount_needed() const { return needed_.load(std::memory_order_relaxed); }
  void setPurge_amount_needed(std::uint64_t bytes) { needed_.store(bytes, std::memory_order_relaxed); }
  [[nodiscard]] std::uint64_t purge_amount_reported() const {
    return reported_.load(std::memory_order_relaxed);
  }
  void setPurge_amount_reported(std::uint64_t bytes) { reported_.store(bytes, std::memory_order_relaxed); }
  [[nodiscard]] std::uint64_t viable_purging_services() const {
    return viable_.load(std::memory_order_relaxed);
  }
  void setViable_purging_services(std::uint64_t count) { viable_.store(count, std::memory_order_relaxed); }

 private:
  using Working = std::shared_ptr<WorkingDictionary>;

  void refuseAmount(const Working& working, const Completion& completion);
  void runPass(std::int32_t urgency, std::uint64_t user_timeout_seconds, const Working& working,
               const Completion& completion);
  void queuePass(const std::shared_ptr<PurgePass>& pass, const Working& working,
                 const Completion& completion);
  void noteTimeout(std::uint64_t seconds, PurgePass& pass);
  void storeStatistics(const WorkingDictionary& working, PurgePass& pass);
  void finish(std::uint64_t start, const Working& working, const Completion& completion);

  // Counters that replies change, on message_queue, while the passes read them.
  std::atomic<bool> cancel_{false};
  std::atomic<std::uint64_t> needed_{0};
  std::atomic<std::uint64_t> reported_{0};
  std::atomic<std::uint64_t> viable_{0};
};

}  // namespace kelvane
