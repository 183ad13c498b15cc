#pragma once

#include <cstdint>
#include <string>

#include "tests/xpc/raw_peer.h"

// Calls of the daemon's interface, as bytes.

namespace kelvane::tests {

[[nodiscard]] RawMessage request(const char* member, std::uint32_t serial);
[[nodiscard]] RawMessage getState(std::uint32_t serial, const std::string& key);
/// The value is `bytes` of data, the last of which differ from one serial to the next.
[[nodiscard]] RawMessage setState(std::uint32_t serial, const std::string& key, std::size_t bytes);
/// The value is an array of this many numbers.
[[nodiscard]] RawMessage setStateToNumbers(std::uint32_t serial, const std::string& key, std::size_t count);
/// Goes with one descriptor. `notification` is one that the service wants; none when empty.
[[nodiscard]] RawMessage checkIn(std::uint32_t serial, const std::string& ID,
                                 const std::string& notification = {});
/// A call of a method whose only argument is an info: for that volume, one byte, urgency 1, and the longest
/// time-out that a pass may have.
[[nodiscard]] RawMessage requestAbout(const char* member, std::uint32_t serial, const std::string& volume);
/// An answer without results to the call of that serial.
[[nodiscard]] RawMessage emptyReply(std::uint32_t serial, std::uint32_t to);

}  // namespace kelvane::tests
