#pragma once

// Counters and distributions, kept for the life of the process and written as OpenMetrics text to
// $RUNTIME_DIRECTORY/metrics.prom: replaced whole, at most once a second, and on change only. Any thread;
// recording never blocks on the file.

#include <cstdint>
#include <map>
#include <string>

namespace kelvane {

/// Adds to the counter of that key. A null key is counted under no name: nothing is recorded.
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

/// Where to write; an empty path stops the writing. Not written before this is called.
void setStatisticsFile(const std::string& path);

}  // namespace kelvane
