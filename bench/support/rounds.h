#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "bench/support/bare_fanout.h"
#include "bench/support/quartiles.h"

namespace kelvane::bench {

/// What one call of `what` takes, in microseconds: the mean of so many.
template <class What>
double microsecondsOf(What what, int times = 1) {
  const std::uint64_t begin = nanosecondsNow();
  for (int i = 0; i < times; ++i) what();
  return static_cast<double>(nanosecondsNow() - begin) / 1e3 / times;
}

/// Has `round` measure `N` things in turns, so many times after two rounds that warm up: the quartiles of
/// each thing's samples.
template <std::size_t N, class Round>
std::array<Quartiles, N> quartilesOfRounds(int rounds, Round round) {
  std::array<std::vector<double>, N> samples;
  for (int i = -2; i < rounds; ++i) {
    const std::array<double, N> measured = round();
    for (std::size_t thing = 0; i >= 0 && thing < N; ++thing) samples[thing].push_back(measured[thing]);
  }
  std::array<Quartiles, N> quartiles;
  for (std::size_t thing = 0; thing < N; ++thing) quartiles[thing] = quartilesOf(samples[thing]);
  return quartiles;
}

}  // namespace kelvane::bench
