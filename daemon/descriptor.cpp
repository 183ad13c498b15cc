#include "daemon/descriptor.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "daemon/kelvane.h"
#include "platform/dispatch/thread.h"
#include "platform/foundation/directory_enumerator.h"
#include "platform/foundation/property_list.h"
#include "platform/foundation/whole_file.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr const char* scan_selector = "scanPlistsAtPath:execBlock:";
constexpr std::size_t files_at_a_time = 128;
constexpr std::size_t small_file_bytes = std::size_t{16} << 10;
constexpr std::size_t files_worth_a_thread = 16;

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

/// A file of a descriptor directory, and what it holds where that was read ahead.
struct DescriptorFile {
  std::string path;
  std::optional<PropertyListResult> list{};
};

/// Like `propertyListWithData`, but with the file's name in the error.
PropertyListResult propertyListOf(const std::string& path, const Data::Bytes& bytes) {
  PropertyListResult list = propertyListWithData(bytes);
  if (list.error) list.error = path + ": " + *list.error;
  return list;
}

PropertyListResult readPropertyList(const std::string& path) {
  WholeFile file = readWholeFile(path, PropertyListLimits().bytes);
  if (file.error) return {Value(), std::move(file.error)};
  return propertyListOf(path, file.bytes);
}

std::vector<DescriptorFile> nextFiles(DirectoryEnumerator& enumerator, const std::string& directory) {
  std::vector<DescriptorFile> files;
  while (files.size() < files_at_a_time) {
    const auto entry = enumerator.next();
    if (!entry) break;
    files.push_back({directory + "/" + *entry});
  }
  return files;
}

/// What is small and cannot grow by being read, as a binary property list can: many of these may be held.
std::optional<PropertyListResult> readSmall(const std::string& path) {
  const WholeFile file = readWholeFile(path, small_file_bytes);
  constexpr std::string_view binary = "bplist";
  const bool is_binary =
      file.bytes.size() >= binary.size() && std::equal(binary.begin(), binary.end(), file.bytes.begin());
  if (file.error || is_binary) return std::nullopt;
  return propertyListOf(path, file.bytes);
}

/// By two threads where that pays: with a thousand files this is most of the start.
void readAhead(std::vector<DescriptorFile>& files) {
  std::atomic<std::size_t> next = 0;
  const auto read_some = [&] {
    for (std::size_t i = next++; i < files.size(); i = next++) files[i].list = readSmall(files[i].path);
  };
  if (files.size() >= files_worth_a_thread) {
    dispatch::runTwice(read_some);
  } else {
    read_some();
  }
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
  for (auto files = nextFiles(enumerator, path); !files.empty(); files = nextFiles(enumerator, path)) {
    readAhead(files);
    for (auto& [file, ahead] : files) {
      KVLog(5, "%s looking at: %@", scan_selector, file);
      const PropertyListResult list = ahead ? *std::move(ahead) : readPropertyList(file);
      if (list.error || !list.value.isDictionary()) {
        KVLog(3, "%s propertyListWithData failed: %@", scan_selector,
              list.error ? Value(*list.error) : Value());
        continue;
      }
      execBlock(*list.value.dictionary());
    }
  }
}

}  // namespace kelvane
