#include "support/entitlements.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "common/keys.h"
#include "support/grants.h"
#include "support/paths.h"

namespace kelvane {
namespace {

using SharedGrants = std::shared_ptr<const std::vector<Grant>>;

std::vector<std::string> everyName() {
  return {CLIENT_ENTITLEMENT,
          SERVICE_ENTITLEMENT,
          PURGE_ENTITLEMENT,
          PURGEABLE_ENTITLEMENT,
          ITEMIZED_PURGEABLE_ENTITLEMENT,
          CANCEL_PURGE_ENTITLEMENT,
          PERIODIC_ENTITLEMENT,
          SERVICE_REQUEST_ENTITLEMENT,
          NOTIFICATION_ENTITLEMENT};
}

SharedGrants load(const std::vector<std::string>& folders) {
  Grants read = readGrants(folders);
  if (!read.any_file) {
    const std::vector<std::string> names = everyName();
    Grant root;
    root.user = 0;
    root.names.insert(names.begin(), names.end());
    read.grants.push_back(std::move(root));
  }
  return std::make_shared<const std::vector<Grant>>(std::move(read.grants));
}

struct Current {
  std::mutex mutex;
  SharedGrants grants;  // guarded by mutex; null before the first use
};

Current& current() {
  static Current& it = *new Current;
  return it;
}

SharedGrants currentGrants() {
  Current& it = current();
  const std::lock_guard lock(it.mutex);  // held while reading, so that nobody is judged by half of them
  if (it.grants == nullptr) {
    it.grants = load({"/usr/lib/kelvane/entitlements.d", configurationDirectory() + "/entitlements.d"});
  }
  return it.grants;
}

}  // namespace

void loadEntitlementGrants(const std::vector<std::string>& folders) {
  SharedGrants fresh = load(folders);
  Current& it = current();
  const std::lock_guard lock(it.mutex);
  it.grants.swap(fresh);
}

bool peerIsEntitled(const xpc::PeerCredentials& peer, const std::vector<std::string>& names) {
  const SharedGrants grants = currentGrants();
  return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
    return std::any_of(grants->begin(), grants->end(),
                       [&](const Grant& grant) { return grant.names.contains(name) && grant.matches(peer); });
  });
}

bool connectionIsEntitled(const xpc::Connection& connection, const std::vector<std::string>& names) {
  const std::optional<xpc::PeerCredentials>& peer = connection.credentials();
  return peer && peerIsEntitled(*peer, names);
}

}  // namespace kelvane
