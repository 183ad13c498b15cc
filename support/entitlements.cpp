#include "support/entitlements.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "support/grants.h"
#include "support/paths.h"

namespace kelvane {
namespace {

using SharedGrants = std::shared_ptr<const std::vector<Grant>>;

SharedGrants load(const std::vector<std::string>& folders) {
  Grants read = readGrants(folders);
  if (!read.any_file) {
    Grant root;
    root.user = 0;
    root.names.insert(entitlement_names.begin(), entitlement_names.end());
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
    it.grants = load(grantFolders());
  }
  return it.grants;
}

}  // namespace

std::vector<std::string> grantFolders() {
  return {"/usr/lib/kelvane/entitlements.d", configurationDirectory() + "/entitlements.d"};
}

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
