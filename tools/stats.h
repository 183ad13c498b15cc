#pragma once

#include <map>
#include <string>

#include "kelvane/value.h"
#include "tools/options.h"
#include "tools/screen.h"

namespace kelvane::tools {

struct Samples {
  double count = 0;
  double sum = 0;
  double least = 0;
  double most = 0;
};
struct Stats {
  std::map<std::string, double> counters;
  std::map<std::string, Samples> distributions;
};

/// Where the daemon writes what it counted, and how much of it is read at most.
[[nodiscard]] std::string metricsFileOf(const Options& options);
inline constexpr std::size_t most_metrics_bytes = std::size_t{64} << 20;

/// Reads what the daemon writes to metrics.prom; a line of another form is passed over.
[[nodiscard]] Stats readStats(const std::string& metrics);
[[nodiscard]] std::string statsScreen(const Stats& stats, const Screen& screen);
[[nodiscard]] Value statsValue(const Stats& stats);

}  // namespace kelvane::tools
