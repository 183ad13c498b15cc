#pragma once

// The keys of requests, answers and state values that programs outside the daemon write or read.

namespace kelvane {

// Requests. Amounts are bytes, urgencies 1 to 4, times seconds.
inline constexpr const char* KELVANE_VOLUME = "KELVANE_VOLUME";  // a mount point
inline constexpr const char* KELVANE_AMOUNT = "KELVANE_AMOUNT";  // to be freed; in an answer, what was freed
inline constexpr const char* KELVANE_URGENCY = "KELVANE_URGENCY";
inline constexpr const char* KELVANE_URGENCY_LIMIT = "KELVANE_URGENCY_LIMIT";
inline constexpr const char* KELVANE_QUOTA_EVENT = "KELVANE_QUOTA_EVENT";
inline constexpr const char* KELVANE_PURGE_TIMEOUT = "KELVANE_PURGE_TIMEOUT";  // for each pass
inline constexpr const char* KELVANE_TOKEN = "KELVANE_TOKEN";                  // anything; names a purge

// Answers.
inline constexpr const char* KELVANE_ERROR = "KELVANE_ERROR";
inline constexpr const char* KELVANE_FREESPACE_BEGIN = "KELVANE_FREESPACE_BEGIN";
inline constexpr const char* KELVANE_FREESPACE_END = "KELVANE_FREESPACE_END";
inline constexpr const char* KELVANE_AMOUNT_REPORTED = "KELVANE_AMOUNT_REPORTED";
inline constexpr const char* KELVANE_ELAPSED_TIME = "KELVANE_ELAPSED_TIME";
inline constexpr const char* KELVANE_OPERATION_CANCELLED = "KELVANE_OPERATION_CANCELLED";
inline constexpr const char* KELVANE_TOTAL_AVAILABLE = "KELVANE_TOTAL_AVAILABLE";

// State values. This one is true until somebody sets it otherwise.
inline constexpr const char* KELVANE_CACHE_ENABLED = "KELVANE_CACHE_ENABLED";

}  // namespace kelvane
