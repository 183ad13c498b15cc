#pragma once

#include <string>

#include "caches/program/purge_entry.h"

namespace kelvane::caches {

/// One line in the service's log. Any thread.
void logLine(const std::string& text);

/// To the journal when standard error goes there, else a line on standard error. Any thread.
void logEntry(const PurgeEntry& entry);

}  // namespace kelvane::caches
