#include "operations/purgeable_operation.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "common/keys.h"
#include "operations/timebase.h"
#include "platform/host/time.h"
#include "support/log.h"
#include "support/statistics.h"

namespace kelvane {
namespace {

constexpr const char* start_selector = "startOperation:";
constexpr std::int64_t wait_nanoseconds = 10'000'000'000;
constexpr double nanoseconds_per_second = 1000000000.0;
constexpr double opt_out_seconds = 120.0;

// The polling tail. An extension starts the count at 1, not at 0.
constexpr std::uint64_t polls = 15;
constexpr std::uint32_t poll_microseconds = 10'000;
constexpr int most_extensions = 5;
constexpr std::int32_t extending_urgency = 4;

double nanosecondsSince(std::uint64_t start) {
  return static_cast<double>(mach_absolute_time() - start) * gTimebaseConversion;
}

/// The question to one service.
class PurgeableRequest final : public ServiceRequest {
 public:
  PurgeableRequest(std::shared_ptr<KelvanePurgeableOperation> operation, std::shared_ptr<KVService> service,
                   std::string identifier, Dictionary request, dispatch_group_t group)
      : ServiceRequest(std::move(service), std::move(group)),
        operation_(std::move(operation)),
        identifier_(std::move(identifier)),
        request_(std::move(request)) {}

 private:
  bool mark(const Done& end) override {
    KVLog(5, "%s ^^^asking %@ for urgency %d", start_selector, identifier_, operation_->urgencyLimit());
    start_ = mach_absolute_time();
    return operation_->updateInFlight(identifier_, end);
  }

  void send(KelvaneServiceProtocol& proxy) override {
    proxy.servicePurgeable(operation_->urgencyLimit(), request_, replyHandler());
  }

  void connectionEnded() override {
    KVLog(5, "%s connection invalidated: %@", start_selector, identifier_);
    leaveGroup();
  }

  void replied(const std::optional<Dictionary>& result) override {
    const double elapsed = nanosecondsSince(start_);
    addDistributionStat(kelvane_domain, elapsed, identifier_ + "_purgeableElapsedNanoseconds");
    KVLog(5, "%s %@ took %f seconds, returned: %@", start_selector, identifier_,
          elapsed / nanoseconds_per_second, result);
    Dictionary entry;
    if (result) {
      entry.set(KELVANE_AMOUNT, (*result)[KELVANE_AMOUNT]);
      entry.set(KELVANE_VOLUME, request_[KELVANE_VOLUME]);
      if (result->contains(KELVANE_OPT_OUT)) {
        operation_->optOutService(identifier_, true);
        KVLog(5, "%s %@ has %@, skipping", start_selector, identifier_, *result);
      }
    } else {
      entry.set(KELVANE_AMOUNT, 0);
      entry.set(KELVANE_VOLUME, operation_->info()[KELVANE_VOLUME]);
    }
    operation_->updateServiceStats(identifier_, entry);
    operation_->cancelInFlightService(identifier_);
  }

  const std::shared_ptr<KelvanePurgeableOperation> operation_;
  const std::string identifier_;
  const Dictionary request_;
  std::uint64_t start_ = 0;  // set before the question is sent
};

}  // namespace

std::shared_ptr<KelvanePurgeableOperation> KelvanePurgeableOperation::initWithInfo(
    const Value& info, Services services, std::shared_ptr<PersistentState> state) {
  auto operation = std::make_shared<KelvanePurgeableOperation>(Key(), std::move(state));
  if (!operation->prepare(info, std::move(services))) return nullptr;
  Services asked = operation->services();
  asked.keep([](const KVService& service) { return service.doesPurge() && !service.doNotQuery(); });
  operation->setServices(std::move(asked));
  return operation;
}

bool KelvanePurgeableOperation::optOutService(const std::string& identifier, bool add) {
  return dispatch_sync(collection_queue(), [&] {
    if (add) {
      opt_outs_[identifier] = currentDate();
      return false;
    }
    const auto found = opt_outs_.find(identifier);
    if (found == opt_outs_.end()) return false;
    if (currentDate().secondsSince(found->second) < opt_out_seconds) return true;
    opt_outs_.erase(found);
    return false;
  });
}

// --- the run ---

void KelvanePurgeableOperation::startOperation(
    const std::function<void(const Dictionary& result)>& completion) {
  const Dictionary request = info();
  const std::uint64_t start = mach_absolute_time();
  KVLog(5, "%s ENTRY, info: %@", start_selector, request);
  setTakesServices(true);
  const dispatch_group_t group = dispatch_group_create();
  ask(cachedInfo(request), request, group);
  static_cast<void>(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, wait_nanoseconds)));
  setTakesServices(false);  // nobody would end a question that came so late
  if (inFlightCount() != 0) awaitStragglers();
  const Dictionary cached = cachedInfo(request);
  KVLog(5, "%s cachedInfo (2nd pass): %@", start_selector, cached);
  const Dictionary result = count(*cached[KELVANE_SERVICES_TO_COUNT].dictionary());
  KVLog(5, "%s Still in flight: %@", start_selector, inFlightNames());
  KVLog(5, "%s elapsed time: %f result: %@", start_selector, nanosecondsSince(start) / nanoseconds_per_second,
        result);
  completion(result);
}

void KelvanePurgeableOperation::ask(const Dictionary& cached, const Dictionary& request,
                                    const dispatch_group_t& group) {
  const auto self = std::static_pointer_cast<KelvanePurgeableOperation>(shared_from_this());
  for (const Value& queried : *cached[KELVANE_SERVICES_TO_QUERY].array()) {
    const std::string& identifier = *queried.string();
    const auto found = services().find(identifier);
    if (optOutService(identifier, false) || isInFlight(identifier)) continue;
    dispatch_group_async(
        group, dispatch_get_global_queue(0, 0),
        [question = std::make_shared<PurgeableRequest>(self, found->second, identifier, request, group)] {
          question->open(CallServiceAsync);
        });
  }
}

void KelvanePurgeableOperation::awaitStragglers() {
  KVLog(5, "%s ^^^waiting for a little bit", start_selector);
  int extensions = most_extensions;
  for (std::uint64_t i = 0; i < polls;) {
    if (inFlightCount() == 0) {
      KVLog(5, "%s ^^^beat the timeout, woohoo!", start_selector);
      break;
    }
    KVLog(5, "%s --------- %s --------- %llu ---------", start_selector, i % 2 == 0 ? "tick" : "tock", i);
    usleep(poll_microseconds);
    if (urgencyLimit() == extending_urgency && extensions != 0 && i == polls - 1) {
      KVLog(5, "%s maxExtensions: %d", start_selector, extensions);
      --extensions;
      i = 1;
    } else {
      ++i;
    }
  }
  dispatch_sync(collection_queue(), [this] {
    KVLog(5, "%s ^^^done waiting, inFlight: %@", start_selector, inFlightIdentifiers());
  });
  cancelInFlights();
}

/// The figures with their sum, added up where it cannot overflow.
Dictionary KelvanePurgeableOperation::count(const Dictionary& figures) const {
  __extension__ using Wide = __int128;
  using Limits = std::numeric_limits<std::int64_t>;
  Wide total = 0;
  for (const auto& [identifier, figure] : figures) {
    if (figure.isNumber()) {
      total += figure.longLongValue();
    } else {
      KVLog(3, "%s %d %@ num is not a number: %@", start_selector, 175, identifier, figure);
    }
  }
  Dictionary result = figures;
  result.set(KELVANE_TOTAL_AVAILABLE,
             static_cast<std::int64_t>(std::clamp<Wide>(total, Limits::min(), Limits::max())));
  result.set(KELVANE_VOLUME, volume());
  return result;
}

Array KelvanePurgeableOperation::inFlightNames() const {
  return dispatch_sync(collection_queue(), [this] { return inFlightIdentifiers(); });
}

}  // namespace kelvane
