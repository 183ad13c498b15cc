#pragma once

#include <sys/types.h>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/activity.h"
#include "client/pass_deadline.h"
#include "client/service_directories.h"
#include "kelvane/service.h"
#include "platform/dispatch/queue.h"
#include "platform/xpc/connection.h"

namespace kelvane::client {

/// Brings what comes over the connections to the handler, on the queues that the handler was promised, until
/// it is ended. Thread-safe.
class HandlerCalls final : public std::enable_shared_from_this<HandlerCalls> {
 public:
  using Flag = std::shared_ptr<std::atomic<bool>>;

  HandlerCalls(ServiceHandler& handler, ServiceDirectories directories)
      : handler_(handler), directories_(std::move(directories)) {}

  /// Serves a connection that a listener accepted, and resumes it.
  void serve(const std::shared_ptr<xpc::Connection>& connection);
  void report(ServiceState state, const std::string& reason);
  /// The calls that run or wait.
  void cancelPurges();
  /// Since when no connection is open and no call runs or waits.
  [[nodiscard]] std::optional<Moment> idleSince() const { return activity_->idleSince(); }
  /// Cancels, waits for the calls that run, and lets none begin any more. Fatal in a call of the handler.
  void end();

 private:
  class Door;  // what one connection exports
  friend class Door;

  /// Submits a call of the handler, to be dropped when the end comes first.
  template <class F>
  void submit(const dispatch_queue_t& queue, F call);
  /// The request for the handler; nothing when it concerns none of the service's data.
  [[nodiscard]] std::optional<Request> requestFor(std::int32_t urgency, const Dictionary& info,
                                                  Moment answer_by) const;
  Flag beginPurge();
  void endPurge(const Flag& flag);

  // Constant.
  ServiceHandler& handler_;  // used on the three queues only
  const ServiceDirectories directories_;
  const std::shared_ptr<Activity> activity_ = std::make_shared<Activity>();
  const dispatch_queue_t work_queue_ = dispatch_queue_create("com.orvel.kelvane_service_work");
  const dispatch_queue_t question_queue_ = dispatch_queue_create("com.orvel.kelvane_service_question");
  const dispatch_queue_t event_queue_ = dispatch_queue_create("com.orvel.kelvane_service_event");

  PassDeadline pass_;
  std::atomic<bool> ended_{false};
  std::mutex mutex_;                                         // guards all below
  std::set<Flag> purges_;                                    // those asked for and not yet answered
  std::vector<std::weak_ptr<xpc::Connection>> connections_;  // those served
};

/// Whether a peer may call a service: one of `callers`, or, when nobody says who may, root or `daemon`.
[[nodiscard]] bool mayCall(uid_t peer, const std::optional<std::vector<uid_t>>& callers,
                           const std::optional<uid_t>& daemon);

}  // namespace kelvane::client
