#include "daemon/descriptor.h"

#include <set>
#include <string>
#include <utility>

#include "common/keys.h"
#include "daemon/kelvane.h"
#include "platform/foundation/directory_enumerator.h"
#include "platform/foundation/property_list.h"
#include "platform/foundation/whole_file.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr const char* scan_selector = "scanPlistsAtPath:execBlock:";

void readServices(const Value& kinds, KVService& service) {
  if (kinds.isNothing()) {
    service.setDoesPurge(true);
    return;
  }
  const Array listed = kinds.array() != nullptr ? *kinds.array() : Array();
  service.setDoesPeriodic(listed.contains(service_kind_periodic));
  service.setDoesPurge(listed.contains(service_kind_purge));
}

void readNotifications(const Value& names, KVService& service, const char* selector) {
  if (names.array() == nullptr) return;
  std::set<std::string> desired;
  for (const Value& name : *names.array()) {
    if (name.string() != nullptr) desired.insert(*name.string());
  }
  KVLog(5, "%s %@ desiredNotifications: %@", selector, service.ID(), desired);
  service.setDesiredNotifications(std::move(desired));
}

/// The property list in the file; with nothing, why.
PropertyListResult readPropertyList(const std::string& path) {
  WholeFile file = readWholeFile(path, PropertyListLimits().bytes);
  if (file.error) return {Value(), std::move(file.error)};
  return propertyListWithData(file.bytes);
}

}  // namespace

std::shared_ptr<KVService> serviceFromDescriptor(const Dictionary& descriptor, const char* selector) {
  const std::string* const ID = descriptor[KELVANE_ID].string();
  if (ID == nullptr) return nullptr;
  auto service = std::make_shared<KVService>(*ID);
  readServices(descriptor[KELVANE_SERVICES], *service);
  if (descriptor.contains(KELVANE_DO_NOT_QUERY)) {  // whatever its value
    KVLog(5, "%s marking %@ as DO_NOT_QUERY", selector, *ID);
    service->setDoNotQuery(true);
  }
  readNotifications(descriptor[KELVANE_NOTIFICATIONS], *service, selector);
  service->setNoQuota(descriptor[KELVANE_OPT_OUT_QUOTA_EVENTS].boolValue());
  service->setMultiUserOnly(descriptor[KELVANE_MULTI_USER_MODE_ONLY].boolValue());
  return service;
}

void Kelvane::scanPlistsAtPath(const std::string& path, const DescriptorHandler& execBlock) {
  DirectoryEnumerator enumerator(path);
  while (const auto entry = enumerator.next()) {
    const std::string file = path + "/" + *entry;
    KVLog(5, "%s looking at: %@", scan_selector, file);
    const PropertyListResult list = readPropertyList(file);
    if (list.error || !list.value.isDictionary()) {
      KVLog(3, "%s propertyListWithData failed: %@", scan_selector,
            list.error ? Value(*list.error) : Value());
      continue;
    }
    execBlock(*list.value.dictionary());
  }
}

}  // namespace kelvane
