// One request to one service within one pass: its share, and how its reply is accounted for.

#include <algorithm>
#include <utility>

#include "common/keys.h"
#include "operations/purge_operation.h"
#include "operations/timebase.h"
#include "platform/host/time.h"
#include "support/log.h"
#include "support/statistics.h"

namespace kelvane {
namespace {

constexpr const char* selector = "queueServiceRequest:info:urgency:operationInfo:group:completion:";
constexpr double nanoseconds_per_second = 1000000000.0;

/// Created when the request is queued.
class PurgeRequest final : public ServiceRequest {
 public:
  PurgeRequest(std::shared_ptr<KelvanePurgeOperation> operation, std::shared_ptr<KVService> service,
               std::shared_ptr<WorkingDictionary> info, std::int32_t urgency, std::shared_ptr<PurgePass> pass,
               dispatch_group_t group, Completion completion)
      : ServiceRequest(std::move(service), std::move(group)),
        operation_(std::move(operation)),
        info_(std::move(info)),
        urgency_(urgency),
        pass_(std::move(pass)),
        completion_(std::move(completion)) {}

  /// Computes the share and requests it, unless there is nothing to request. On `message_queue`.
  void run();

 private:
  [[nodiscard]] bool takeShare();
  bool mark(const Done& end) override;
  void send(KelvaneServiceProtocol& proxy) override;
  void replied(const std::optional<Dictionary>& reply) override;
  void connectionEnded() override;
  /// On `message_queue`. A repeated request is queued there and runs later.
  void account(const std::optional<Dictionary>& reply, double elapsed_nanoseconds);
  std::uint64_t recordAmount(const std::optional<Dictionary>& reply);
  void passOn(const std::optional<Dictionary>& reply, double elapsed_nanoseconds);
  void recordStatistics(const std::optional<Dictionary>& reply, std::uint64_t amount,
                        double elapsed_nanoseconds);

  // Constant.
  const std::shared_ptr<KelvanePurgeOperation> operation_;
  const std::shared_ptr<WorkingDictionary> info_;
  const std::int32_t urgency_;
  const std::shared_ptr<PurgePass> pass_;
  const Completion completion_;

  // Written on message_queue before the request is sent, read by its reply.
  Dictionary request_;
  std::uint64_t donation_ = 0;
  std::uint64_t start_ = 0;  // host-clock ticks
};

void PurgeRequest::run() {
  KVLog(5, "%s queuing service: %@", selector, service()->ID());
  if (!takeShare()) return;
  request_ = dispatch_sync(operation_->collection_queue(), [this] { return info_->request(donation_); });
  open(CallServiceAsync);
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
  return !operation_->isInFlight(service()->ID()) && donation_ != 0;
}

bool PurgeRequest::mark(const Done& end) {
  KVLog(5, "%s requesting %lld bytes from %@ at urgency %d", selector, donation_, service()->ID(), urgency_);
  return operation_->updateInFlight(service()->ID(), end);
}

void PurgeRequest::send(KelvaneServiceProtocol& proxy) {
  start_ = mach_absolute_time();
  proxy.servicePurge(urgency_, std::move(request_), replyHandler());
}

void PurgeRequest::replied(const std::optional<Dictionary>& reply) {
  const double elapsed = static_cast<double>(mach_absolute_time() - start_) * gTimebaseConversion;
  dispatch_group_async(group(), operation_->message_queue(),
                       [this, self = shared_from_this(), reply, elapsed] { account(reply, elapsed); });
}

void PurgeRequest::connectionEnded() {
  KVLog(5, "%s connection to %@ invalidated", selector, service()->ID());
  leaveGroup();
}

void PurgeRequest::account(const std::optional<Dictionary>& reply, double elapsed_nanoseconds) {
  if (!pass_->isOpen()) return;  // the service may be in flight again, in the next pass
  const std::uint64_t amount = recordAmount(reply);
  if (amount < donation_) {
    const std::uint64_t viable = operation_->viable_purging_services();
    operation_->setViable_purging_services(viable - std::min<std::uint64_t>(viable, 1));
  } else {
    operation_->queueServiceRequest(service(), info_, urgency_, pass_, group(), completion_);
  }
  passOn(reply, elapsed_nanoseconds);
  recordStatistics(reply, amount, elapsed_nanoseconds);
  operation_->cancelInFlightService(service()->ID());
}

std::uint64_t PurgeRequest::recordAmount(const std::optional<Dictionary>& reply) {
  const Value number = reply ? (*reply)[KELVANE_AMOUNT] : Value();
  if (!number.isNumber()) KVLog(3, "%s %d num is not a number: %@", selector, 230, number);
  const std::uint64_t amount = number.unsignedLongLongValue();  // 0 for what is no number
  operation_->setPurge_amount_reported(saturatingSum(operation_->purge_amount_reported(), amount));
  dispatch_sync(operation_->collection_queue(), [&] {
    pass_->setReport(service()->ID(), amount);
    info_->countReport(amount);
  });
  KVLog(5, "%s %@ service purged: %llu", selector, service()->ID(), amount);
  return amount;
}

void PurgeRequest::passOn(const std::optional<Dictionary>& reply, double elapsed_nanoseconds) {
  if (!completion_) return;
  std::optional<Dictionary> copy = reply;
  if (copy) copy->set(KELVANE_ELAPSED_TIME, elapsed_nanoseconds);
  KVLog(5, "%s %@ calling completion with: %@", selector, service()->ID(), copy);
  completion_(copy);
}

void PurgeRequest::recordStatistics(const std::optional<Dictionary>& reply, std::uint64_t amount,
                                    double elapsed_nanoseconds) {
  KelvanePurgeOperation::reportPercentageForAmountRequested(donation_, amount, service()->ID());
  KVLog(5, "%s %@ took %f seconds, purged: %@", selector, service()->ID(),
        elapsed_nanoseconds / nanoseconds_per_second, reply ? (*reply)[KELVANE_AMOUNT] : Value());
  addDistributionStat(kelvane_domain, elapsed_nanoseconds, service()->ID() + "_purgeElapsedNanoseconds");
}

}  // namespace

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
