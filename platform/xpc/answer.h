#pragma once

// Building the messages that answer calls.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/foundation/function_ref.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

/// A message that the calling thread reuses together with its memory. It must be given to a transport before
/// the thread builds another one.
[[nodiscard]] wire::Outgoing& scratchMessage();
/// Marks the thread's scratch message as in use. Afterwards the message keeps only a small amount of memory:
/// otherwise a thread that once built a message of 32 MiB would hold that much forever.
class ScratchUse {
 public:
  static constexpr std::size_t most_kept = std::size_t{64} << 10;

  ScratchUse() = default;
  ScratchUse(const ScratchUse&) = delete;
  ScratchUse& operator=(const ScratchUse&) = delete;
  ~ScratchUse();
};

/// A reply to the call with that serial. Becomes an error (LimitsExceeded) if the results cannot be sent.
void makeReply(wire::Outgoing& answer, std::uint32_t serial, std::string_view signature,
               FunctionRef<void(wire::Writer&)> write);
/// An error reply to the call with that serial. An invalid error name becomes Error.Failed.
void makeError(wire::Outgoing& answer, std::uint32_t serial, std::string_view name, std::string_view message);

/// Why a message could not be written, as a readable message.
[[nodiscard]] std::string_view textOf(wire::Writer::Fault fault);

}  // namespace kelvane::xpc
