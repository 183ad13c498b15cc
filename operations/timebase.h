#pragma once

namespace kelvane {

/// Nanoseconds per tick of the host clock, for elapsed times. 0.0 until start-up has set it, and
/// permanently if the host clock cannot be queried; every elapsed time is then 0. Set before any queue
/// has work, and only read afterwards.
extern double gTimebaseConversion;

}  // namespace kelvane
