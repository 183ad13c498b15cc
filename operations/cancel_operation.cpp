// Cancelling: a connection of its own to every service in flight, on which it is asked to stop.
//
// The wait below has a deadline that is a moment of the host clock, twenty seconds after it began to count,
// so on any machine that has been up for longer it is over at once. The connections that are opened after
// that are ended by the services' answers; those of services that never answer are ended twenty seconds
// later.

#include <map>
#include <memory>
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

/// The cancel connections that are open. Kept alive by their handlers.
class CancelConnections : public std::enable_shared_from_this<CancelConnections> {
 public:
  void open(const std::string& identifier, const std::shared_ptr<KVService>& service);
  /// Ends all that are open if they do not end by themselves in time.
  void wait();
  [[nodiscard]] const dispatch_group_t& group() const { return group_; }

 private:
  void ask(const std::string& identifier, const std::shared_ptr<KelvaneServiceProtocol>& proxy,
           const Done& done);
  void finish(const std::string& identifier);
  void finishAll();

  const dispatch_group_t group_ = dispatch_group_create();
  const dispatch_queue_t queue_ = dispatch_queue_create("com.orvel.kelvane_cancelInFlights");
  std::map<std::string, Done> pending_;  // only on queue_
  Timer stragglers_;                     // only on queue_
};

void CancelConnections::open(const std::string& identifier, const std::shared_ptr<KVService>& service) {
  const auto membership = std::make_shared<GroupMembership>(group_);
  CallServiceAsync(
      service,
      [&](const std::shared_ptr<KelvaneServiceProtocol>& proxy, const Done& done) {
        membership->enter();
        ask(identifier, proxy, done);
      },
      [self = shared_from_this(), membership, identifier] {
        KVLog(5, "%s connection invalidated: %@", "cancelOperation", identifier);
        membership->connectionEnded();
      });
}

void CancelConnections::ask(const std::string& identifier,
                            const std::shared_ptr<KelvaneServiceProtocol>& proxy, const Done& done) {
  dispatch_sync(queue_, [&] { pending_[identifier] = done; });
  proxy->serviceCancelPurge([self = shared_from_this(), identifier] { self->finish(identifier); });
}

void CancelConnections::finish(const std::string& identifier) {
  dispatch_sync(queue_, [&] {
    const auto found = pending_.find(identifier);
    if (found == pending_.end()) return;
    found->second();
    pending_.erase(found);
  });
}

void CancelConnections::finishAll() {
  for (const auto& [identifier, done] : pending_) done();
  pending_.clear();
}

void CancelConnections::wait() {
  if (dispatch_group_wait(group_, cancel_deadline) == 0) return;
  dispatch_sync(queue_, [&] {
    finishAll();
    stragglers_ =
        Timer(dispatch_time(DISPATCH_TIME_NOW, straggler_nanoseconds), queue_, [weak = weak_from_this()] {
          if (const auto self = weak.lock()) self->finishAll();
        });
  });
}

}  // namespace

void KelvaneOperation::cancelOperation() {
  const auto connections = std::make_shared<CancelConnections>();
  const bool is_over_at_once = Clock::current().now() >= cancel_deadline;
  if (is_over_at_once) dispatch_suspend(collection_queue_);
  dispatch_group_async(connections->group(), collection_queue_, [self = shared_from_this(), connections] {
    for (const auto& [identifier, cancel] : self->in_flight_) {
      const auto service = self->services_.find(identifier);
      if (service != self->services_.end()) connections->open(identifier, service->second);
    }
  });
  connections->wait();
  if (is_over_at_once) dispatch_resume(collection_queue_);
}

}  // namespace kelvane
