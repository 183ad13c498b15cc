#pragma once

#include <map>
#include <string>

#include "kelvane/value.h"
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

/// Reads what the daemon writes to metrics.prom; a line of another form is passed over.
[[nodiscard]] Stats readStats(const std::string& metrics);
[[nodiscard]] std::string statsScreen(const Stats& stats, const Screen& screen);
[[nodiscard]] Value statsValue(const Stats& stats);

}  // namespace kelvane::tools
