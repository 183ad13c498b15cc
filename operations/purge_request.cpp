#include "operations/purge_request.h"

#include <algorithm>
#include <utility>

#include "common/keys.h"
#include "operations/timebase.h"
#include "platform/host/time.h"
#include "support/log.h"
#include "support/statistics.h"

namespace kelvane {
namespace {

constexpr const char* selector = "queueServiceRequest:info:urgency:operationInfo:group:completion:";
constexpr double nanoseconds_per_second = 1000000000.0;

Value objectOf(const std::optional<Dictionary>& reply) { return reply ? Value(*reply) : Value(); }

}  // namespace

PurgeRequest::PurgeRequest(std::shared_ptr<KelvanePurgeOperation> operation,
                           std::shared_ptr<KVService> service, std::shared_ptr<WorkingDictionary> info,
                           std::int32_t urgency, std::shared_ptr<PurgePass> pass, dispatch_group_t group,
                           Completion completion)
    : operation_(std::move(operation)),
      service_(std::move(service)),
      info_(std::move(info)),
      urgency_(urgency),
      pass_(std::move(pass)),
      group_(std::move(group)),
      completion_(std::move(completion)),
      membership_(group_) {}

void PurgeRequest::run() {
  KVLog(5, "%s queuing service: %@", selector, service_->ID());
  if (takeShare()) call();
}

bool PurgeRequest::takeShare() {
  const std::uint64_t purged = amountPurged(*info_);
  const std::uint64_t viable = operation_->viable_purging_services();
  const std::uint64_t needed = operation_->purge_amount_needed();
  if (viable == 0 || purged >= needed || operation_->cancel() || !pass_->isOpen()) return false;
  donation_ = (needed - purged) / viable;
  KVLog(5,
        "%s donation (%lld) = (amount needed[%llu] - amount_purged[%llu]) / viable_purging_services[%llu])",
        selector, donation_, needed, purged, viable);
  return !operation_->isInFlight(service_->ID()) && donation_ != 0;
}

void PurgeRequest::call() {
  request_ = dispatch_sync(operation_->collection_queue(), [this] { return info_->request(donation_); });
  CallServiceAsync(
      service_,
      [this](const std::shared_ptr<KelvaneServiceProtocol>& proxy, Done done) {
        send(proxy, std::move(done));
      },
      [self = shared_from_this()] {
        KVLog(5, "%s connection to %@ invalidated", selector, self->service_->ID());
        self->membership_.connectionEnded();
      });
}

void PurgeRequest::send(const std::shared_ptr<KelvaneServiceProtocol>& proxy, Done done) {
  KVLog(5, "%s requesting %lld bytes from %@ at urgency %d", selector, donation_, service_->ID(), urgency_);
  if (!operation_->updateInFlight(service_->ID(), std::move(done))) return;
  start_ = mach_absolute_time();
  membership_.enter();
  proxy->servicePurge(
      urgency_, std::move(request_),
      [self = shared_from_this()](const std::optional<Dictionary>& reply) { self->handleReply(reply); });
}

void PurgeRequest::handleReply(const std::optional<Dictionary>& reply) {
  const double elapsed = static_cast<double>(mach_absolute_time() - start_) * gTimebaseConversion;
  dispatch_group_async(group_, operation_->message_queue(),
                       [self = shared_from_this(), reply, elapsed] { self->account(reply, elapsed); });
}

void PurgeRequest::account(const std::optional<Dictionary>& reply, double elapsed_nanoseconds) {
  if (!pass_->isOpen()) return;  // the service may be in flight again, in the next pass
  const std::uint64_t amount = recordAmount(reply);
  if (amount < donation_) {
    const std::uint64_t viable = operation_->viable_purging_services();
    operation_->setViable_purging_services(viable - std::min<std::uint64_t>(viable, 1));
  } else {
    operation_->queueServiceRequest(service_, info_, urgency_, pass_, group_, completion_);
  }
  passOn(reply, elapsed_nanoseconds);
  recordStatistics(reply, amount, elapsed_nanoseconds);
  operation_->cancelInFlightService(service_->ID());
}

std::uint64_t PurgeRequest::recordAmount(const std::optional<Dictionary>& reply) {
  const Value number = reply ? (*reply)[KELVANE_AMOUNT] : Value();
  if (!number.isNumber()) KVLog(3, "%s %d num is not a number: %@", selector, 230, number);
  const std::uint64_t amount = number.unsignedLongLongValue();  // 0 for what is no number
  operation_->setPurge_amount_reported(saturatingSum(operation_->purge_amount_reported(), amount));
  dispatch_sync(operation_->collection_queue(), [&] {
    pass_->setReport(service_->ID(), amount);
    info_->countReport(amount);
  });
  KVLog(5, "%s %@ service purged: %llu", selector, service_->ID(), amount);
  return amount;
}

void PurgeRequest::passOn(const std::optional<Dictionary>& reply, double elapsed_nanoseconds) {
  if (!completion_) return;
  std::optional<Dictionary> copy = reply;
  if (copy) copy->set(KELVANE_ELAPSED_TIME, elapsed_nanoseconds);
  KVLog(5, "%s %@ calling completion with: %@", selector, service_->ID(), objectOf(copy));
  completion_(copy);
}

void PurgeRequest::recordStatistics(const std::optional<Dictionary>& reply, std::uint64_t amount,
                                    double elapsed_nanoseconds) {
  KelvanePurgeOperation::reportPercentageForAmountRequested(donation_, amount, service_->ID());
  KVLog(5, "%s %@ took %f seconds, purged: %@", selector, service_->ID(),
        elapsed_nanoseconds / nanoseconds_per_second, reply ? (*reply)[KELVANE_AMOUNT] : Value());
  addDistributionStat(kelvane_domain, elapsed_nanoseconds, service_->ID() + "_purgeElapsedNanoseconds");
}

void KelvanePurgeOperation::queueServiceRequest(const std::shared_ptr<KVService>& service,
                                                const std::shared_ptr<WorkingDictionary>& info,
                                                std::int32_t urgency,
                                                const std::shared_ptr<PurgePass>& operationInfo,
                                                const dispatch_group_t& group, const Completion& completion) {
  auto request =
      std::make_shared<PurgeRequest>(std::static_pointer_cast<KelvanePurgeOperation>(shared_from_this()),
                                     service, info, urgency, operationInfo, group, completion);
  dispatch_group_async(group, message_queue(), [request = std::move(request)] { request->run(); });
}

}  // namespace kelvane
