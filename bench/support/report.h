#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/quartiles.h"

namespace kelvane::bench {

/// What a figure should be.
struct Goal {
  enum class Of { median, ratio } of;
  enum class Side { most, least } side;
  double value;
};

inline Goal medianAtMost(double value) { return {Goal::Of::median, Goal::Side::most, value}; }
inline Goal ratioAtMost(double value) { return {Goal::Of::ratio, Goal::Side::most, value}; }
inline Goal ratioAtLeast(double value) { return {Goal::Of::ratio, Goal::Side::least, value}; }

/// What the same took without the daemon, in turns with it.
struct Peer {
  std::string name;
  Quartiles value;
  Quartiles ratio;  // of the rounds' ratios
};

/// One thing that was measured.
struct Figure {
  std::string name;
  std::string unit;
  int rounds = 1;
  Quartiles value;
  std::optional<Peer> peer{};
  std::optional<Goal> goal{};
  std::string note{};  // what one must know to read it right
};

/// A curve: as many of one as of the other.
struct Series {
  std::string name;
  std::vector<double> x;
  std::vector<double> y;
};

/// Which part of the samples (y, in percent) took at most how much (x); at most some hundred points.
Series distributionOf(const std::string& name, std::vector<double> samples);

/// All that one benchmark found. A program fills one and writes it when it was asked to.
struct Report {
  std::vector<Figure> figures{};
  std::vector<Series> series{};

  void add(std::vector<Figure> more);
  /// For people: a line for each figure.
  void print() const;
  /// Does nothing without a path. Ends the program, with the reason, when it cannot.
  void write(const std::string& path) const;
};

}  // namespace kelvane::bench
