#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::bench {

/// What each service is asked.
enum class Request { purge, purgeable };

/// Opens a connection through each endpoint, sends each service the request, waits for all answers and closes
/// each connection when its answer has come: single-threaded, with nothing but the bus library. `amount` goes
/// into a purge. Returns the nanoseconds that took.
std::uint64_t bareBusFanout(const std::vector<int>& endpoints, Request request, const std::string& volume,
                            std::uint64_t amount);

/// Nanoseconds for one call and its answer on a connection that is open, the mean of a few.
std::uint64_t bareBusRoundTrip(int endpoint, const std::string& volume);

/// Nanoseconds for writing a dictionary of so many numbers into a message and reading it out again.
std::uint64_t bareBusMarshalling(std::size_t entries);

/// The same with plain bytes of about the same number on plain sockets.
std::uint64_t rawFanout(const std::vector<int>& endpoints);

[[nodiscard]] std::uint64_t nanosecondsNow();

}  // namespace kelvane::bench
