#pragma once

namespace kelvane {

/// Nanoseconds per tick of the host clock, for elapsed times. 0.0 until start-up has set it, and for good
/// when the host clock would not say; every elapsed time is then 0. Set before any queue has work, only read
/// after.
extern double gTimebaseConversion;

}  // namespace kelvane
