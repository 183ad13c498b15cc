#pragma once

#include <chrono>

#include "platform/dispatch/clock.h"

namespace kelvane::client {

using Moment = std::chrono::steady_clock::time_point;

/// The present, by the clock of this process, which tests can move.
[[nodiscard]] inline Moment present() {
  const std::chrono::nanoseconds now(static_cast<std::chrono::nanoseconds::rep>(Clock::current().now()));
  return Moment(std::chrono::duration_cast<Moment::duration>(now));
}

}  // namespace kelvane::client
