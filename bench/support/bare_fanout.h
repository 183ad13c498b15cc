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

/// The same with plain bytes of about the same number on plain sockets.
std::uint64_t rawFanout(const std::vector<int>& endpoints);

/// A plain socket to a raw service, and one ping-pong on it of as many bytes as a call and its answer.
int rawConnection(int endpoint);
void rawRoundTrip(int socket);

[[nodiscard]] std::uint64_t nanosecondsNow();

}  // namespace kelvane::bench
