#pragma once

// Building the messages that answer calls.

#include <cstdint>
#include <string_view>

#include "platform/foundation/function_ref.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

/// A message of the calling thread's, for whoever builds one and gives it to a transport before another is
/// built on this thread. It keeps its memory.
[[nodiscard]] wire::Outgoing& scratchMessage();

/// A reply to the call of that serial. Becomes an error (LimitsExceeded) when the results cannot travel.
void makeReply(wire::Outgoing& answer, std::uint32_t serial, std::string_view signature,
               FunctionRef<void(wire::Writer&)> write);
/// An error that answers the call of that serial. A name that is none becomes Error.Failed.
void makeError(wire::Outgoing& answer, std::uint32_t serial, std::string_view name, std::string_view message);

/// Why a message could not be written; for people.
[[nodiscard]] std::string_view textOf(wire::Writer::Fault fault);

}  // namespace kelvane::xpc
