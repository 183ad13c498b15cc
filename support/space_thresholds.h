#pragma once

// When a volume counts as low, as the administrator says it:
//
//   KELVANE_LOW_SPACE=8%,1G        low below the smaller of 8 % of the volume and 1 GiB
//   KELVANE_VERY_LOW_SPACE=500M    very low below 500 MiB, whatever the volume's size
//
// Either part may be left out. Amounts are bytes, or K, M, G or T of 1024 each; both parts may have a
// fraction. Without KELVANE_VERY_LOW_SPACE a volume is very low at half of what KELVANE_LOW_SPACE says.
// Inodes have limits of their own, which are fixed; "0%" turns a threshold off, that of its inodes included.

#include <string>
#include <string_view>
#include <variant>

#include "support/space_level.h"

namespace kelvane {

inline constexpr const char* low_space_variable = "KELVANE_LOW_SPACE";
inline constexpr const char* very_low_space_variable = "KELVANE_VERY_LOW_SPACE";

/// What is wrong with a threshold, for people: which, its value, why, and what is expected.
struct ThresholdProblem {
  std::string text;
};

/// The thresholds for the two values; null for a variable that is not set.
[[nodiscard]] std::variant<SpaceThresholds, ThresholdProblem> parseSpaceThresholds(const char* low,
                                                                                   const char* very_low);

/// The thresholds that this process's environment asks for.
[[nodiscard]] std::variant<SpaceThresholds, ThresholdProblem> spaceThresholdsOfEnvironment();

}  // namespace kelvane
