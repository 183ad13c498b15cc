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
  dispatch_group_async(group, dispatch_get_global_queue(0, 0),
                       [self, amount, group] { self->callOut(amount, group); });
  if (dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, wait_nanoseconds)) != 0) {
    dispatch_sync(collection_queue(),
                  [this] { KVLog(5, "%s timed out waiting for: %@", selector, inFlightIdentifiers()); });
    cancelInFlights();
  }
  completion({{KELVANE_AMOUNT, amount->load(std::memory_order_relaxed)}});
}

void KelvanePeriodicOperation::callOut(const Amount& amount, const dispatch_group_t& group) {
  for (const auto& [identifier, service] : services()) {
    if (!isInFlight(identifier)) continue;
    KVLog(5, "%s CallService with serviceID: %@", selector, identifier);
    callService(service, amount, group);
  }
}

void KelvanePeriodicOperation::callService(const std::shared_ptr<KVService>& service, const Amount& amount,
                                           const dispatch_group_t& group) {
  const auto self = std::static_pointer_cast<KelvanePeriodicOperation>(shared_from_this());
  const auto membership = std::make_shared<GroupMembership>(group);
  CallService(
      service,
      [&](const std::shared_ptr<KelvaneServiceProtocol>& proxy, const Done& finish) {
        if (!updateInFlight(service->ID(), finish)) {
          finish();
          return;
        }
        membership->enter();
        KVLog(5, "%s calling proxy for %@", selector, service->ID());
        proxy->servicePeriodic(periodic_urgency, info(),
                               [self, amount, ID = service->ID()](const std::optional<Dictionary>& reply) {
                                 KVLog(5, "%s proxy %@ replied, purged: %@", selector, ID,
                                       reply ? Value(*reply) : Value());
                                 const Value freed = reply ? (*reply)[KELVANE_AMOUNT] : Value();
                                 // Replaced, not added to: the last reply is the result.
                                 if (freed.isNumber())
                                   amount->store(freed.unsignedLongLongValue(), std::memory_order_relaxed);
                                 self->cancelInFlightService(ID);
                               });
      },
      [membership] {
        membership->connectionEnded();
        KVLog(5, "%s connection invalidated", selector);
      });
}

}  // namespace kelvane
