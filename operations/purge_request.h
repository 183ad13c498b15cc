#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "operations/purge_operation.h"

namespace kelvane {

/// One request to one service within one pass: what it asks, and how its reply is accounted for. Made when it
/// is queued; kept alive by the queued items and by the handlers of its connection.
class PurgeRequest : public std::enable_shared_from_this<PurgeRequest> {
 public:
  PurgeRequest(std::shared_ptr<KelvanePurgeOperation> operation, std::shared_ptr<KVService> service,
               std::shared_ptr<WorkingDictionary> info, std::int32_t urgency, std::shared_ptr<PurgePass> pass,
               dispatch_group_t group, Completion completion);

  /// Works out the share and asks for it, or finds that nothing is to be asked. On `message_queue`.
  void run();

 private:
  [[nodiscard]] bool takeShare();
  void call();
  void send(const std::shared_ptr<KelvaneServiceProtocol>& proxy, Done done);
  /// On the connection's queue.
  void handleReply(const std::optional<Dictionary>& reply);
  /// On `message_queue`, where the request that it repeats comes behind it.
  void account(const std::optional<Dictionary>& reply, double elapsed_nanoseconds);
  std::uint64_t recordAmount(const std::optional<Dictionary>& reply);
  void passOn(const std::optional<Dictionary>& reply, double elapsed_nanoseconds);
  void recordStatistics(const std::optional<Dictionary>& reply, std::uint64_t amount,
                        double elapsed_nanoseconds);

  // Constant.
  const std::shared_ptr<KelvanePurgeOperation> operation_;
  const std::shared_ptr<KVService> service_;
  const std::shared_ptr<WorkingDictionary> info_;
  const std::int32_t urgency_;
  const std::shared_ptr<PurgePass> pass_;
  const dispatch_group_t group_;
  const Completion completion_;

  GroupMembership membership_;  // thread-safe

  // Written on message_queue before the request is sent, read by its reply.
  Dictionary request_;
  std::uint64_t donation_ = 0;
  std::uint64_t start_ = 0;  // host-clock ticks
};

}  // namespace kelvane
