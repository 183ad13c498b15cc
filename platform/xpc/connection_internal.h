#pragma once

// What connection_stream.cpp and connection_calls.cpp share.

#include <string>

#include "platform/wire/account.h"
#include "platform/xpc/connection.h"

namespace kelvane::xpc {

/// One read of the socket, and what is done with the messages that came with it.
struct Connection::Round {
  /// Paid before the call is taken, so that a call that cannot be paid is not read at all.
  wire::Charge next_call;
  bool took_message = false;
  std::string broken;  // why the connection is to end; empty when it is not
};

}  // namespace kelvane::xpc
