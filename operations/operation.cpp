#include "operations/operation.h"

#include <utility>

#include "common/keys.h"
#include "operations/device_mode.h"
#include "support/log.h"
#include "support/volumes.h"

namespace kelvane {
namespace {

constexpr const char* init_selector = "initWithInfo:services:";
constexpr const char* update_selector = "updateInFlight:cancelBlock:";
constexpr std::int32_t lowest_urgency = 1;
constexpr std::int32_t highest_urgency = 4;
constexpr std::int32_t default_urgency_limit = 3;

/// A present KELVANE_URGENCY counts even when it is useless.
std::int32_t urgencyLimitOf(const Dictionary& info) {
  const Value& urgency = info[KELVANE_URGENCY];
  const Value& wanted = urgency.isNothing() ? info[KELVANE_URGENCY_LIMIT] : urgency;
  if (!wanted.isNumber()) return default_urgency_limit;
  const std::int64_t limit = wanted.longLongValue();
  return limit >= lowest_urgency && limit <= highest_urgency ? static_cast<std::int32_t>(limit)
                                                             : default_urgency_limit;
}

/// Identifier to the service's properties, for the log.
Dictionary descriptionOf(const Services& services) {
  Dictionary description;
  for (const auto& [identifier, service] : services) {
    Array properties;
    if (service->doesPurge()) properties.append("doesPurge");
    if (service->doesPeriodic()) properties.append("doesPeriodic");
    if (service->doNotQuery()) properties.append("doNotQuery");
    if (service->noQuota()) properties.append("noQuota");
    if (service->multiUserOnly()) properties.append("multiUserOnly");
    description.set(identifier, std::move(properties));
  }
  return description;
}

}  // namespace

std::shared_ptr<KelvaneOperation> KelvaneOperation::initWithInfo(const Value& info, Services services) {
  auto operation = std::make_shared<KelvaneOperation>(Key());
  return operation->prepare(info, std::move(services)) ? operation : nullptr;
}

bool KelvaneOperation::prepare(const Value& info, Services services) {
  if (!takeVolume(info)) return false;
  info_ = *info.dictionary();
  const Value& quota_event = info_[KELVANE_QUOTA_EVENT];
  filterServices(std::move(services), quota_event.isNumber() && quota_event.boolValue());
  collection_queue_ = dispatch_queue_create("com.orvel.kelvane_operation_collection");
  message_queue_ = dispatch_queue_create("com.orvel.kelvane_operation_message");
  in_flight_.clear();
  result_ = info_;
  urgency_limit_ = urgencyLimitOf(info_);
  return true;
}

bool KelvaneOperation::takeVolume(const Value& info) {
  if (!info.isDictionary()) {
    KVLog(3, "%s info is not a dictionary!", init_selector);
    return refuse("Parameter error, info is not a dict");
  }
  const std::string* const volume = (*info.dictionary())[KELVANE_VOLUME].string();
  if (volume == nullptr) {
    KVLog(3, "%s No Volume key in info: %@", init_selector, info);
    return refuse("Parameter error, no Volume key in info dict");
  }
  volume_ = *volume;
  if (!validateVolume(*info.dictionary())) {
    KVLog(3, "%s Unable to validate volume: %@", init_selector, volume_);
    return refuse("Parameter error, Unable to validate volume in info dict");
  }
  return true;
}

bool KelvaneOperation::refuse(const char* error) {
  result_ = Dictionary{{KELVANE_ERROR, error}};
  return false;
}

void KelvaneOperation::filterServices(Services given, bool is_quota_event) {
  const bool is_multi_user = deviceIsMultiUser(init_selector);
  services_ = std::move(given);
  for (const auto& [identifier, service] : Services(services_)) {
    if (!is_multi_user && service->multiUserOnly()) {
      KVLog(5, "%s removing multiUserOnly service %@", init_selector, service->ID());
      services_.erase(service->ID());
    }
    if (is_quota_event && service->noQuota()) {
      KVLog(5, "%s removing noQuota service %@ for this quota event", init_selector, service->ID());
      services_.erase(service->ID());
    }
  }
  KVLog(5, "%s services: %@", init_selector, descriptionOf(services_));
}

// --- services in flight ---

bool KelvaneOperation::updateInFlight(const std::string& identifier, Done cancelBlock) {
  return dispatch_sync(collection_queue_, [&] {
    const bool adding = static_cast<bool>(cancelBlock);
    KVLog(5, "%s %s %@", update_selector, adding ? "adding" : "removing", identifier);
    bool changed = false;
    if (adding && takes_services_) {
      changed = in_flight_.try_emplace(identifier, std::move(cancelBlock)).second;
      if (!changed)
        KVLog(3, "%s trying to add \"%@\", which is already inFlight", update_selector, identifier);
    } else if (!adding) {
      changed = in_flight_.erase(identifier) > 0;
      if (!changed)
        KVLog(5, "%s trying to remove \"%@\", which is not inFlight", update_selector, identifier);
    }
    noteInFlightCount();
    return changed;
  });
}

bool KelvaneOperation::isInFlight(const std::string& identifier) const {
  return dispatch_sync(collection_queue_, [&] { return in_flight_.count(identifier) > 0; });
}

void KelvaneOperation::cancelInFlightService(const std::string& identifier) {
  dispatch_sync(collection_queue_, [&] {
    endRequest(in_flight_, identifier);
    noteInFlightCount();
  });
}

void KelvaneOperation::cancelInFlights() {
  dispatch_sync(collection_queue_, [&] {
    endRequests(in_flight_);
    noteInFlightCount();
  });
}

void KelvaneOperation::setTakesServices(bool takes) {
  dispatch_sync(collection_queue_, [&] { takes_services_ = takes; });
}

std::size_t KelvaneOperation::inFlightCount() const {
  return dispatch_sync(collection_queue_, [&] { return in_flight_.size(); });
}

void KelvaneOperation::setInFlight(InFlight in_flight) {
  dispatch_sync(collection_queue_, [&] {
    in_flight_ = std::move(in_flight);
    noteInFlightCount();
  });
}

Array KelvaneOperation::inFlightIdentifiers() const {
  Array identifiers;
  for (const auto& [identifier, cancel] : in_flight_) identifiers.append(identifier);
  return identifiers;
}

Dictionary KelvaneOperation::inFlightTable() const {
  Dictionary table;
  for (const auto& [identifier, cancel] : in_flight_) table.set(identifier, "callback");
  return table;
}

}  // namespace kelvane
