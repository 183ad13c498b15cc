#pragma once

// Key names and constants that more than one folder uses, beside those that the library's users see. Nothing
// here runs.

#include "kelvane/keys.h"

namespace kelvane {

inline constexpr const char* kelvane_log_tag = "Kelvane";
inline constexpr const char* kelvane_domain = "com.orvel.kelvane";  // settings suite and statistics domain

// The info dictionary: requests, requests to one service, replies and results.
inline constexpr const char* KELVANE_ASYNC = "KELVANE_ASYNC";
inline constexpr const char* KELVANE_SERVICES_INFLIGHT = "KELVANE_SERVICES_INFLIGHT";
inline constexpr const char* KELVANE_REPORTING_SERVICES = "KELVANE_REPORTING_SERVICES";
inline constexpr const char* KELVANE_SERVICES_TO_QUERY = "KELVANE_SERVICES_TO_QUERY";
inline constexpr const char* KELVANE_SERVICES_TO_COUNT = "KELVANE_SERVICES_TO_COUNT";
inline constexpr const char* KELVANE_OPT_OUT = "KELVANE_OPT_OUT";
inline constexpr const char* KELVANE_RECENT_SERVICE_STATS = "KELVANE_RECENT_SERVICE_STATS";

// Service descriptors and check-in.
inline constexpr const char* KELVANE_ID = "KELVANE_ID";
inline constexpr const char* KELVANE_SERVICES = "KELVANE_SERVICES";
inline constexpr const char* KELVANE_DO_NOT_QUERY = "KELVANE_DO_NOT_QUERY";
inline constexpr const char* KELVANE_NOTIFICATIONS = "KELVANE_NOTIFICATIONS";
inline constexpr const char* KELVANE_OPT_OUT_QUOTA_EVENTS = "KELVANE_OPT_OUT_QUOTA_EVENTS";
inline constexpr const char* KELVANE_MULTI_USER_MODE_ONLY = "KELVANE_MULTI_USER_MODE_ONLY";
inline constexpr const char* service_kind_periodic = "PERIODIC";
inline constexpr const char* service_kind_purge = "PURGE";
inline constexpr const char* checkin_reply_anonymous = "ANON";

// The state store.
inline constexpr const char* KELVANE_USER_DEFAULTS = "KELVANE_USER_DEFAULTS";

// Entitlements. A grant lists them under `entitlements_key`.
inline constexpr const char* entitlements_key = "com.orvel.private.Kelvane";
inline constexpr const char* CLIENT_ENTITLEMENT = "CLIENT_ENTITLEMENT";
inline constexpr const char* SERVICE_ENTITLEMENT = "SERVICE_ENTITLEMENT";
inline constexpr const char* PURGE_ENTITLEMENT = "PURGE_ENTITLEMENT";
inline constexpr const char* PURGEABLE_ENTITLEMENT = "PURGEABLE_ENTITLEMENT";
inline constexpr const char* ITEMIZED_PURGEABLE_ENTITLEMENT = "ITEMIZED_PURGEABLE_ENTITLEMENT";
inline constexpr const char* CANCEL_PURGE_ENTITLEMENT = "CANCEL_PURGE_ENTITLEMENT";
inline constexpr const char* PERIODIC_ENTITLEMENT = "PERIODIC_ENTITLEMENT";
inline constexpr const char* SERVICE_REQUEST_ENTITLEMENT = "SERVICE_REQUEST_ENTITLEMENT";
inline constexpr const char* NOTIFICATION_ENTITLEMENT = "NOTIFICATION_ENTITLEMENT";

}  // namespace kelvane
