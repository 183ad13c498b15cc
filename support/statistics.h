#pragma once

// Counters and distributions, kept for the life of the process and written as OpenMetrics text to
// $RUNTIME_DIRECTORY/metrics.prom: replaced whole, at most once a second, and on change only: one second
// after the first change that the file does not show. Any thread; recording never blocks on the file.
//
// Keys come from what services call themselves and report, so each domain holds at most 10,000 counters and
// as many distributions; what would be a further one is dropped, and a level-3 line says so once.

#include <cstdint>
#include <map>
#include <string>

namespace kelvane {

/// Adds to the counter of that key; a sum that 64 bits do not hold stops at their end. A null key (or domain)
/// is counted under no name: nothing is recorded.
void addReportStat(const char* domain, const char* key, std::int64_t value);
/// Adds one sample to the distribution of that name.
void addDistributionStat(const char* domain, double value, const std::string& name);

struct Distribution {
  std::uint64_t count = 0;
  double sum = 0;
  double least = 0;
  double most = 0;
};
struct Statistics {
  std::map<std::string, std::int64_t> counters;
  std::map<std::string, Distribution> distributions;
};
/// What was recorded so far in the domain.
[[nodiscard]] Statistics statisticsOf(const std::string& domain);

/// Where to write; an empty path stops the writing. Not written before this is called; what was recorded
/// until then is written one second from now. A file that cannot be written is named in a level-3 line, once
/// until it can be.
void setStatisticsFile(const std::string& path);

/// Begins anew, as a new process does. What was not yet written never will be. For tests, which share a
/// process.
void forgetStatistics();

/// What the file holds: the statistics of each domain as OpenMetrics text.
[[nodiscard]] std::string openMetricsText(const std::map<std::string, Statistics>& domains);

}  // namespace kelvane
