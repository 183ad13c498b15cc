#pragma once

// Frees a number of bytes on one volume: passes of rising urgency, in each of which the services are asked
// for equal shares of what is still missing.
//
// `startOperation` blocks its thread and runs the passes there. The requests go out from items of
// `message_queue`, which is suspended while a pass queues them, so that all see the same need; it is also
// suspended while a reply is handled, so that the repeated request of a service does not run before the
// service has left the in-flight table. Replies come on the threads of their connections. The working
// dictionary and the operation-info dictionaries are touched only on `collection_queue`.
//
// The group of a pass is entered by each queued item until it has run and by each request until its
// connection has ended. A service whose connection ends without a reply stays in the in-flight table: it is
// not asked again in this operation unless a pass times out, and it is not counted among the viable ones.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "operations/operation.h"
#include "support/amount_purged.h"

namespace kelvane {

/// Gets each service's reply (nothing when the reply was nil) and at last the operation's result.
using Completion = std::function<void(const std::optional<Dictionary>& result)>;

/// What happened in one pass. Only on the operation's `collection_queue`.
class OperationInfo {
 public:
  OperationInfo(std::shared_ptr<WorkingDictionary> working, std::int32_t urgency);

  void set(std::string_view key, Value value);
  /// Replaces what the service reported earlier in this pass.
  void setReport(const std::string& identifier, std::uint64_t bytes);
  /// Stores it in the working dictionary, which from then on shows whatever still comes.
  void store();

 private:
  const std::shared_ptr<WorkingDictionary> working_;
  const std::string key_;
  Dictionary entries_;
  Dictionary reports_;  // apart, since it grows with every reply
  bool stored_ = false;
};

class KelvanePurgeOperation final : public KelvaneOperation {
 public:
  /// As the base's, with the services that purge only.
  static std::shared_ptr<KelvanePurgeOperation> initWithInfo(const Value& info, Services services);
  explicit KelvanePurgeOperation(Key key) : KelvaneOperation(key) {}

  /// Runs the whole purge before it returns. Calls the completion with each reply, on the thread that brings
  /// it, and last with the result, on this thread; one call at a time.
  void startOperation(const Completion& completion);

  /// Adds one request to the group, to run on `message_queue`. `info` and `operationInfo` live as long as the
  /// request does.
  void queueServiceRequest(const std::shared_ptr<KVService>& service,
                           const std::shared_ptr<WorkingDictionary>& info, std::int32_t urgency,
                           const std::shared_ptr<OperationInfo>& operationInfo, const dispatch_group_t& group,
                           const Completion& completion);

  /// Records how much of a request was met.
  static void reportPercentageForAmountRequested(std::uint64_t requested, std::uint64_t amountPurged,
                                                 const std::string& identifier);

  // Safe on any thread, each by itself.
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
  friend class PurgeRequest;
  using Working = std::shared_ptr<WorkingDictionary>;

  void refuseAmount(const Working& working, const Completion& completion);
  void runPass(std::int32_t urgency, std::uint64_t user_timeout_seconds, const Working& working,
               const Completion& completion);
  void queuePass(std::int32_t urgency, const Working& working, const std::shared_ptr<OperationInfo>& info,
                 const dispatch_group_t& group, const Completion& completion);
  void noteTimeout(std::int32_t urgency, std::uint64_t seconds, OperationInfo& info);
  void storeStatistics(std::int32_t urgency, const WorkingDictionary& working, OperationInfo& info);
  void finish(std::uint64_t start, const Working& working, const Completion& completion);
  void addReported(std::uint64_t bytes);
  void loseViableService();
  /// Passes a reply on, unless the result has been passed on already.
  void completeReply(const Completion& completion, const std::optional<Dictionary>& reply);

  // Counters that replies change while the passes read them.
  std::atomic<bool> cancel_{false};
  std::atomic<std::uint64_t> needed_{0};
  std::atomic<std::uint64_t> reported_{0};
  std::atomic<std::uint64_t> viable_{0};

  // A late reply must not take the place of the result, nor a late item ask for more.
  const dispatch_queue_t completion_queue_ = dispatch_queue_create("com.orvel.kelvane_operation_completion");
  std::atomic<bool> finished_{false};  // set on completion_queue_
};

}  // namespace kelvane
