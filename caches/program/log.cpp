#include "caches/program/log.h"

#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host/journal.h"

namespace kelvane::caches {

void logLine(const std::string& text) {
  std::fputs(fmt::format("kelvane-caches: {}\n", text).c_str(), stderr);
}

void logEntry(const PurgeEntry& entry) {
  static const bool to_journal = isJournalStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM"));
  if (to_journal && entry.journal.send()) return;
  logLine(entry.message);
}

}  // namespace kelvane::caches
