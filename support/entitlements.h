#pragma once

// Which process may ask for what. Grants are property-list files, each a dictionary with any of "user" (name
// or number), "group" (name or number) and "label", all of which must match the peer, and the array
// "com.orvel.private.Kelvane" of the names that it then holds. They are read from
// /usr/lib/kelvane/entitlements.d and then $CONFIGURATION_DIRECTORY/entitlements.d, every *.plist in the
// order of its name; what several grants give adds up. A file that is not owned by root or by this process's
// user, or that its group or others can write, is ignored with a level-3 line that says which and why, and so
// is one that is no such dictionary. The directories are judged like the files (grant_directory.h): when one
// is not trusted, all its files are ignored, and the line names the directory. A grant that does not state
// whom it is for is invalid too: a misspelled "user" must not grant rights to everybody. Names of users and
// groups are looked up when the grants are read; an unknown name matches nobody, and a level-3 line is
// logged. If no directory has a *.plist file, and none is ignored, user root holds every name.
//
// Who the peer is, is what the kernel recorded when it connected. Any thread.

#include <array>
#include <string>
#include <vector>

#include "common/keys.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/credentials.h"

namespace kelvane {

/// Every name there is.
inline constexpr std::array<const char*, 9> entitlement_names = {CLIENT_ENTITLEMENT,
                                                                 SERVICE_ENTITLEMENT,
                                                                 PURGE_ENTITLEMENT,
                                                                 PURGEABLE_ENTITLEMENT,
                                                                 ITEMIZED_PURGEABLE_ENTITLEMENT,
                                                                 CANCEL_PURGE_ENTITLEMENT,
                                                                 PERIODIC_ENTITLEMENT,
                                                                 SERVICE_REQUEST_ENTITLEMENT,
                                                                 NOTIFICATION_ENTITLEMENT};

/// Whether the peer of the connection holds every name. A connection without recorded credentials holds none.
[[nodiscard]] bool connectionIsEntitled(const xpc::Connection& connection,
                                        const std::vector<std::string>& names);
[[nodiscard]] bool peerIsEntitled(const xpc::PeerCredentials& peer, const std::vector<std::string>& names);

/// Where grants are read from when nobody says otherwise, in this order.
[[nodiscard]] std::vector<std::string> grantFolders();

/// Reads the grants anew from these folders, in this order; a missing folder has none. Called once at first
/// use with the standard ones. Reads files and may ask a directory service, so it may take its time.
void loadEntitlementGrants(const std::vector<std::string>& folders);

}  // namespace kelvane
