#include "operations/periodic_operation.h"

#include <optional>
#include <utility>

#include "common/keys.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr const char* selector = "startOperation:";
constexpr std::int64_t wait_nanoseconds = 15'000'000'000;
constexpr std::int32_t periodic_urgency = 3;

using Amount = std::shared_ptr<std::atomic<std::uint64_t>>;

class PeriodicRequest final : public ServiceRequest {
 public:
  PeriodicRequest(std::shared_ptr<KelvanePeriodicOperation> operation, std::shared_ptr<KVService> service,
                  Amount amount, dispatch_group_t group)
      : ServiceRequest(std::move(service), std::move(group)),
        operation_(std::move(operation)),
        amount_(std::move(amount)) {}

 private:
  bool mark(const Done& end) override { return operation_->updateInFlight(service()->ID(), end); }

  void send(KelvaneServiceProtocol& proxy) override {
    KVLog(5, "%s calling proxy for %@", selector, service()->ID());
    proxy.servicePeriodic(periodic_urgency, operation_->info(), replyHandler());
  }

  void replied(const std::optional<Dictionary>& reply) override {
    KVLog(5, "%s proxy %@ replied, purged: %@", selector, service()->ID(), reply);
    const Value freed = reply ? (*reply)[KELVANE_AMOUNT] : Value();
    // Replaced, not added to: the last reply is the result.
    if (freed.isNumber()) amount_->store(freed.unsignedLongLongValue(), std::memory_order_relaxed);
    operation_->cancelInFlightService(service()->ID());
  }

  void connectionEnded() override {
    leaveGroup();
    KVLog(5, "%s connection invalidated", selector);
  }

  const std::shared_ptr<KelvanePeriodicOperation> operation_;
  const Amount amount_;
};

}  // namespace

std::shared_ptr<KelvanePeriodicOperation> KelvanePeriodicOperation::initWithInfo(const Value& info,
                                                                                 Services services) {
  auto operation = std::make_shared<KelvanePeriodicOperation>(Key());
  if (!operation->prepare(info, std::move(services))) return nullptr;
  Services periodic = operation->services();
  periodic.keep([](const KVService& service) { return service.doesPeriodic(); });
  operation->setServices(std::move(periodic));
  return operation;
}

void KelvanePeriodicOperation::startOperation(
    const std::function<void(const Dictionary& result)>& completion) {
  const auto amount = std::make_shared<std::atomic<std::uint64_t>>(0);
  const dispatch_group_t group = dispatch_group_create();
  const auto self = std::static_pointer_cast<KelvanePeriodicOperation>(shared_from_this());
  dispatch_group_async(group, dispatch_get_global_queue(0, 0), [self, amount, group] {
    for (const auto& [identifier, service] : self->services()) {
      if (!self->isInFlight(identifier)) continue;
      KVLog(5, "%s CallService with serviceID: %@", selector, identifier);
      std::make_shared<PeriodicRequest>(self, service, amount, group)->open(CallService);
    }
  });
  if (dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, wait_nanoseconds)) != 0) {
    dispatch_sync(collection_queue(),
                  [this] { KVLog(5, "%s timed out waiting for: %@", selector, inFlightTable()); });
    cancelInFlights();
  }
  completion({{KELVANE_AMOUNT, amount->load(std::memory_order_relaxed)}});
}

}  // namespace kelvane
