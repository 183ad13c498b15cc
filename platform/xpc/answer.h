#pragma once

// Building the messages that answer calls.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/foundation/function_ref.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

/// A message of the calling thread's, for whoever builds one and gives it to a transport before another is
/// built on this thread. It keeps its memory.
[[nodiscard]] wire::Outgoing& scratchMessage();
/// While it lives the thread's scratch message is in use. Afterwards it keeps its memory only when that is
/// little: a thread that once built a message of 32 MiB would keep as much for good.
class ScratchUse {
 public:
  static constexpr std::size_t most_kept = std::size_t{64} << 10;

  ScratchUse() = default;
  ScratchUse(const ScratchUse&) = delete;
  ScratchUse& operator=(const ScratchUse&) = delete;
  ~ScratchUse();
};

/// A reply to the call of that serial. Becomes an error (LimitsExceeded) when the results cannot travel.
void makeReply(wire::Outgoing& answer, std::uint32_t serial, std::string_view signature,
               FunctionRef<void(wire::Writer&)> write);
/// An error that answers the call of that serial. A name that is none becomes Error.Failed.
void makeError(wire::Outgoing& answer, std::uint32_t serial, std::string_view name, std::string_view message);

/// Why a message could not be written; for people.
[[nodiscard]] std::string_view textOf(wire::Writer::Fault fault);

}  // namespace kelvane::xpc
