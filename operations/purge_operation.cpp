#include "operations/purge_operation.h"

#include <fmt/format.h>
#include <algorithm>
#include <limits>
#include <utility>

#include "common/keys.h"
#include "operations/timebase.h"
#include "platform/dispatch/suspension.h"
#include "platform/host/time.h"
#include "support/log.h"
#include "support/statistics.h"
#include "support/volumes.h"

namespace kelvane {
namespace {

constexpr const char* start_selector = "startOperation:";
constexpr std::uint64_t longest_pass_seconds = 300;
constexpr std::uint64_t pass_seconds_per_urgency = 2;
constexpr std::uint64_t nanoseconds_per_second = 1'000'000'000;

std::uint64_t freespaceOf(const WorkingDictionary& working) {
  const std::string* const volume = working[KELVANE_VOLUME].string();
  return volume != nullptr ? volumeFreespace(*volume) : 0;
}

/// For counters, which are signed: peers choose the amounts.
std::int64_t countOf(std::uint64_t bytes) {
  return static_cast<std::int64_t>(
      std::min(bytes, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
}

}  // namespace

// --- making ---

std::shared_ptr<KelvanePurgeOperation> KelvanePurgeOperation::initWithInfo(const Value& info,
                                                                           Services services) {
  auto operation = std::make_shared<KelvanePurgeOperation>(Key());
  if (!operation->prepare(info, std::move(services))) return nullptr;
  Services purging = operation->services();
  purging.keep([](const KVService& service) { return service.doesPurge(); });
  operation->setPurge_amount_needed(operation->info()[KELVANE_AMOUNT].unsignedLongLongValue());
  operation->setPurge_amount_reported(0);
  operation->setViable_purging_services(purging.size());
  operation->setServices(std::move(purging));
  return operation;
}

// --- the run ---

void KelvanePurgeOperation::startOperation(const Completion& completion) {
  const auto working = std::make_shared<WorkingDictionary>(info());
  std::uint64_t user_timeout_seconds = info()[KELVANE_PURGE_TIMEOUT].unsignedLongLongValue();
  KVLog(5, "%s user_timeout_seconds: %llu", start_selector, user_timeout_seconds);
  user_timeout_seconds = std::min(user_timeout_seconds, longest_pass_seconds);
  const Value amount = result()[KELVANE_AMOUNT];
  if (!amount.isNumber()) {
    KVLog(3, "%s %d amount is not a number: %@", start_selector, 73, amount);
    refuseAmount(working, completion);
    return;
  }
  setPurge_amount_needed(amount.unsignedLongLongValue());
  dispatch_sync(collection_queue(), [&] { working->set(KELVANE_FREESPACE_BEGIN, freespaceOf(*working)); });
  KVLog(5, "%s urgencyLimit: %d, info at start: %@", start_selector, urgencyLimit(), result());
  setPurge_amount_reported(0);
  const std::uint64_t start = mach_absolute_time();
  for (std::int32_t urgency = 1; urgency <= urgencyLimit(); ++urgency) {
    if (cancel()) {
      dispatch_sync(collection_queue(), [&] { working->set(KELVANE_OPERATION_CANCELLED, true); });
      break;
    }
    runPass(urgency, user_timeout_seconds, working, completion);
  }
  finish(start, working, completion);
}

void KelvanePurgeOperation::refuseAmount(const Working& working, const Completion& completion) {
  dispatch_sync(collection_queue(), [&] {
    working->clear();
    working->set(KELVANE_ERROR, "Parameter error, no Amount key in info dict");
  });
  if (completion) completion(working->contents());
}

void KelvanePurgeOperation::runPass(std::int32_t urgency, std::uint64_t user_timeout_seconds,
                                    const Working& working, const Completion& completion) {
  const auto pass = std::make_shared<PurgePass>(urgency);
  KVLog(5, "%s IN QUEUE, amountPurged: %llu", start_selector, amountPurged(*working));
  addDistributionStat(kelvane_domain, static_cast<double>(purge_amount_needed()),
                      "KelvanePurgeAmountRequested");
  if (amountPurged(*working) < purge_amount_needed()) queuePass(pass, working, completion);
  const std::uint64_t seconds = user_timeout_seconds != 0
                                    ? user_timeout_seconds
                                    : pass_seconds_per_urgency * static_cast<std::uint64_t>(urgency);
  KVLog(5, "%s waiting for %llu seconds, user_timeout_seconds: %llu, currentUrgency: %d", start_selector,
        seconds, user_timeout_seconds, urgency);
  const auto nanoseconds = static_cast<std::int64_t>(seconds * nanoseconds_per_second);
  const bool timed_out =
      dispatch_group_wait(pass->group(), dispatch_time(DISPATCH_TIME_NOW, nanoseconds)) != 0;
  dispatch_sync(message_queue(), [&] { pass->close(); });
  if (timed_out) noteTimeout(seconds, *pass);
  setViable_purging_services(services().size() - std::min(services().size(), inFlightNow()));
  storeStatistics(*working, *pass);
  dispatch_sync(collection_queue(), [&] { working->set(pass->key(), pass->operationInfo()); });
}

void KelvanePurgeOperation::queuePass(const std::shared_ptr<PurgePass>& pass, const Working& working,
                                      const Completion& completion) {
  KVLog(5, "%s Urgency: %d", start_selector, pass->urgency());
  const Suspension suspension(message_queue());
  dispatch_group_enter(pass->group());
  for (const auto& [identifier, service] : services())
    queueServiceRequest(service, working, pass->urgency(), pass, pass->group(), completion);
  dispatch_group_leave(pass->group());
}

void KelvanePurgeOperation::noteTimeout(std::uint64_t seconds, PurgePass& pass) {
  dispatch_sync(collection_queue(), [&] {
    const Array in_flight = inFlightIdentifiers();
    pass.set(KELVANE_SERVICES_INFLIGHT, in_flight);
    KVLog(3, "%s timed out waiting for: %@", start_selector, in_flight);
    pass.set(fmt::format("KELVANE_URGENCY_{}_TIMEOUT_SECONDS", pass.urgency()), seconds);
  });
  cancelInFlights();
}

void KelvanePurgeOperation::storeStatistics(const WorkingDictionary& working, PurgePass& pass) {
  const std::string key = fmt::format("KELVANE_OPERATION_STATS_URGENCY_{}", pass.urgency());
  const std::string line = fmt::format(
      "amount reported: {}, amountPurged: {}, purge_amount_needed: {}, cancel: {}", purge_amount_reported(),
      amountPurged(working), purge_amount_needed(), cancel() ? "TRUE" : "FALSE");
  KVLog(5, "%s %@ : %@", start_selector, key, line);
  dispatch_sync(collection_queue(), [&] { pass.set(key, line); });
}

void KelvanePurgeOperation::finish(std::uint64_t start, const Working& working,
                                   const Completion& completion) {
  const std::uint64_t purged = amountPurged(*working);
  const std::uint64_t needed = purge_amount_needed();
  const double elapsed = static_cast<double>(mach_absolute_time() - start) * gTimebaseConversion;
  addDistributionStat(kelvane_domain, elapsed, "KelvanePurgeElapsedNanoseconds");
  if (inFlightCount() > 0 && purged < needed) {
    KVLog(3, "%s cancelling purge", start_selector);
    cancelOperation();
  }
  const Dictionary filled = dispatch_sync(collection_queue(), [&] {
    working->set(KELVANE_AMOUNT_REPORTED, purge_amount_reported());
    working->set(KELVANE_ELAPSED_TIME, elapsed / static_cast<double>(nanoseconds_per_second));
    addDistributionStat(kelvane_domain, static_cast<double>(purged), "KelvanePurgeAmountPurged");
    reportPercentageForAmountRequested(needed, purged, "total");
    working->set(KELVANE_AMOUNT, purged);
    working->set(KELVANE_AMOUNT_REPORTED, purge_amount_reported());
    working->set(KELVANE_FREESPACE_END, freespaceOf(*working));
    return working->contents();
  });
  KVLog(5, "%s result %@", start_selector, filled);
  if (purged < needed) {
    addReportStat(kelvane_domain, "KelvanePurgeFailed", 1);
    addDistributionStat(kelvane_domain, static_cast<double>(needed - purged), "KelvanePurgeDeficit");
  }
  if (completion) completion(filled);
}

// --- counting ---

void KelvanePurgeOperation::reportPercentageForAmountRequested(std::uint64_t requested,
                                                               std::uint64_t amountPurged,
                                                               const std::string& identifier) {
  constexpr const char* selector = "reportPercentageForAmountRequested:amountPurged:identifier:";
  const std::string name = identifier + ".purged";
  if (requested != 0) {
    const float ratio = static_cast<float>(static_cast<std::int64_t>(amountPurged)) /
                        static_cast<float>(static_cast<std::int64_t>(requested));
    // Bounded, since a peer chooses the amounts and what fits no integer has no conversion.
    const auto bucket = static_cast<std::int64_t>(std::clamp(ratio * 10.0F, -1e17F, 1e17F)) * 10;
    const std::string percent = fmt::format("{}.{}.percent", name, bucket);
    addReportStat(kelvane_domain, percent.c_str(), 1);
    KVLog(5, "%s %@", selector, percent);
  }
  addReportStat(kelvane_domain, name.c_str(), countOf(amountPurged));
  KVLog(5, "%s %@ donated %lld of %lld", selector, identifier, static_cast<std::int64_t>(amountPurged),
        static_cast<std::int64_t>(requested));
}

}  // namespace kelvane
