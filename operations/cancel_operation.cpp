// Cancelling opens a separate connection to each service in flight and asks it to stop.
//
// The wait below has an absolute deadline, twenty seconds on the host clock, so on any
// machine that has been up for longer it ends at once. Connections that are opened
// after that end when the services answer; those of services that never answer are
// ended after another twenty seconds.

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "operations/operation.h"
#include "platform/dispatch/clock.h"
#include "platform/dispatch/source.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr dispatch_time_t cancel_deadline = 20'000'000'000;  // an absolute time, on purpose
constexpr std::int64_t straggler_nanoseconds = 20'000'000'000;

/// The requests to stop that are under way. They keep this object alive.
class CancelRequests : public std::enable_shared_from_this<CancelRequests> {
 public:
  void add(const std::string& identifier, const Done& done);
  void end(const std::string& identifier);
  /// Waits for all that are under way, and ends those that do not end in time.
  void wait();
  [[nodiscard]] const dispatch_group_t& group() const { return group_; }

 private:
  const dispatch_group_t group_ = dispatch_group_create();
  const dispatch_queue_t queue_ = dispatch_queue_create("com.orvel.kelvane_cancelInFlights");
  InFlight pending_;  // only on queue_
  Timer stragglers_;  // only on queue_
};

class CancelRequest final : public ServiceRequest {
 public:
  CancelRequest(std::shared_ptr<CancelRequests> requests, std::string identifier,
                std::shared_ptr<KVService> service)
      : ServiceRequest(std::move(service), requests->group()),
        requests_(std::move(requests)),
        identifier_(std::move(identifier)) {}

 private:
  bool mark(const Done& end) override {
    requests_->add(identifier_, end);
    return true;
  }
  void send(KelvaneServiceProtocol& proxy) override {
    proxy.serviceCancelPurge([reply = replyHandler()] { reply(std::nullopt); });
  }
  void replied(const std::optional<Dictionary>& /*reply*/) override { requests_->end(identifier_); }
  void connectionEnded() override {
    KVLog(5, "%s connection invalidated: %@", "cancelOperation", identifier_);
    leaveGroup();
  }

  const std::shared_ptr<CancelRequests> requests_;
  const std::string identifier_;
};

void CancelRequests::add(const std::string& identifier, const Done& done) {
  dispatch_sync(queue_, [&] { pending_[identifier] = done; });
}

void CancelRequests::end(const std::string& identifier) {
  dispatch_sync(queue_, [&] { endRequest(pending_, identifier); });
}

void CancelRequests::wait() {
  if (dispatch_group_wait(group_, cancel_deadline) == 0) return;
  dispatch_sync(queue_, [&] {
    endRequests(pending_);
    stragglers_ =
        Timer(dispatch_time(DISPATCH_TIME_NOW, straggler_nanoseconds), queue_, [weak = weak_from_this()] {
          if (const auto self = weak.lock()) endRequests(self->pending_);
        });
  });
}

}  // namespace

void KelvaneOperation::cancelOperation() {
  const auto requests = std::make_shared<CancelRequests>();
  const bool is_over_at_once = Clock::current().now() >= cancel_deadline;
  if (is_over_at_once) dispatch_suspend(collection_queue_);
  dispatch_group_async(requests->group(), collection_queue_, [self = shared_from_this(), requests] {
    for (const auto& [identifier, cancel] : self->in_flight_) {
      const auto service = self->services_.find(identifier);
      if (service != self->services_.end())
        std::make_shared<CancelRequest>(requests, identifier, service->second)->open(CallServiceAsync);
    }
  });
  requests->wait();
  if (is_over_at_once) dispatch_resume(collection_queue_);
}

}  // namespace kelvane
