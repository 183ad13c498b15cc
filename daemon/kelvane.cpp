#include "daemon/kelvane.h"

#include <fmt/format.h>
#include <map>
#include <utility>

#include "common/keys.h"
#include "daemon/descriptor.h"
#include "interface/limits.h"
#include "operations/periodic_operation.h"
#include "platform/dispatch/once.h"
#include "platform/foundation/user_defaults.h"
#include "support/log.h"
#include "support/paths.h"

namespace kelvane {
namespace {

constexpr const char* init_selector = "init";

Environment& sharedEnvironment() {
  static Environment& environment = *new Environment;
  return environment;
}

}  // namespace

const std::shared_ptr<Kelvane>& Kelvane::sharedKelvane() {
  static dispatch_once_t once;
  static std::shared_ptr<Kelvane>& shared = *new std::shared_ptr<Kelvane>;
  dispatch_once(once, [] { shared = init(sharedEnvironment()); });
  return shared;
}

void Kelvane::setSharedEnvironment(Environment environment) { sharedEnvironment() = std::move(environment); }

std::shared_ptr<Kelvane> Kelvane::init(const Environment& environment) {
  auto kelvane = std::make_shared<Kelvane>(Key());
  kelvane->fill(environment);
  return kelvane;
}

void Kelvane::fill(const Environment& environment) {
  root_path_ = environment.root;
  // Two slashes where they meet; the file system reads it as the same directory.
  const std::string system_descriptors = fmt::format("{}{}", root_path_, "/System/Library/Kelvane/");
  KVLog(5, "%s plistDir: %@", init_selector, system_descriptors);
  default_values_ = Dictionary{{KELVANE_CACHE_ENABLED, true}};
  openUserDefaults(environment.settings_directory);
  createQueues();
  // Reserving the room for the first time takes longer than everything else here.
  if (user_defaults_ != nullptr)
    dispatch_async(defaults_queue_, [defaults = user_defaults_] { defaults->keepRoom(); });
  readDescriptors({system_descriptors, environment.internal_descriptors});
  openListener();
}

void Kelvane::openUserDefaults(const std::string& directory) {
  std::string reason;
  user_defaults_ = UserDefaults::initWithSuiteName(
      kelvane_domain, directory,
      {.recreatable = {KELVANE_RECENT_SERVICE_STATS}, .vfs = {}, .room = {state_file_room, state_log_room}},
      &reason);
  if (user_defaults_ == nullptr) {
    KVLog(3, "%s Unable to initialize user defaults!", init_selector);
    KVLog(3, "%s state file %s", init_selector, reason.c_str());
    return;
  }
  for (const std::string& notice : user_defaults_->takeNotices())
    KVLog(3, "%s state file %s", init_selector, notice.c_str());
}

void Kelvane::createQueues() {
  purge_queue_ = dispatch_queue_create("com.orvel.kelvane_purge");
  purgeable_queue_ = dispatch_queue_create("com.orvel.kelvane_purgeable");
  periodic_queue_ = dispatch_queue_create("com.orvel.kelvane_periodic");
  notify_queue_ = dispatch_queue_create("com.orvel.kelvane_notify");
  daemons_queue_ = dispatch_queue_create("com.orvel.kelvane_daemons");
  collection_queue_ = dispatch_queue_create("com.orvel.kelvane_cancel");
  defaults_queue_ = dispatch_queue_create("com.orvel.kelvane_defaults");
}

void Kelvane::readDescriptors(const std::vector<std::string>& directories) {
  std::vector<std::string> identifiers;
  Services found;
  for (const std::string& directory : directories) {
    KVLog(5, "%s scanning %@", init_selector, directory);
    scanPlistsAtPath(directory, [&](const Dictionary& descriptor) {
      const auto service = serviceFromDescriptor(descriptor, init_selector);
      if (service == nullptr) return;
      found[service->ID()] = service;  // a later file of the same ID wins
      identifiers.push_back(service->ID());
    });
  }
  services_ = std::move(found);
  daemons_.insert(identifiers.begin(), identifiers.end());
}

void Kelvane::openListener() {
  listener_ = KelvaneListener::daemonListenerWithExportedObject(
      std::static_pointer_cast<KelvaneClientProtocol>(shared_from_this()));
  listener_->addRequiredEntitlement(CLIENT_ENTITLEMENT);
  KVLog(5, "%s resuming listener", init_selector);
  is_listening_ = listener_->resume();
}

Services Kelvane::mutableServices() const {
  return dispatch_sync(collection_queue_, [this] { return services_; });
}

Services& Kelvane::services() {
  dispatch_assert_queue(collection_queue_);
  return services_;
}

void Kelvane::setServices(Services services) {
  dispatch_assert_queue(collection_queue_);
  services_ = std::move(services);
}

void Kelvane::performPeriodicsWithInfo(const Dictionary& info) {
  const auto operation = KelvanePeriodicOperation::initWithInfo(info, copyServices());
  if (operation == nullptr) return;
  operation->startOperation(
      [](const Dictionary& result) { KVLog(5, "%s result: %@", "performPeriodicsWithInfo:", result); });
}

}  // namespace kelvane
