#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::bench {

/// Opens a connection through each endpoint, asks each service to purge, waits for all answers and closes
/// each connection when its answer has come: single-threaded, with nothing but the bus library. Returns the
/// nanoseconds that took.
std::uint64_t bareBusFanout(const std::vector<int>& endpoints, const std::string& volume,
                            std::uint64_t amount);

/// The same with plain bytes of about the same number on plain sockets.
std::uint64_t rawFanout(const std::vector<int>& endpoints);

[[nodiscard]] std::uint64_t nanosecondsNow();

}  // namespace kelvane::bench
