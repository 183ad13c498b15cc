#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kelvane::bench {

struct Quartiles {
  double low = 0;
  double median = 0;
  double high = 0;
};

/// Of at least one sample.
inline Quartiles quartilesOf(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const auto at = [&](double part) {
    return samples[static_cast<std::size_t>(part * static_cast<double>(samples.size() - 1))];
  };
  return {at(0.25), at(0.5), at(0.75)};
}

/// The same in another unit, or for one of many.
inline Quartiles operator*(const Quartiles& value, double factor) {
  return {value.low * factor, value.median * factor, value.high * factor};
}
inline Quartiles operator/(const Quartiles& value, double divisor) { return value * (1 / divisor); }

}  // namespace kelvane::bench
