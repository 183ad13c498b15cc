#pragma once

// What connection_stream.cpp and connection_calls.cpp share.

#include <string>

#include "platform/wire/account.h"
#include "platform/xpc/connection.h"

namespace kelvane::xpc {

/// One read of the socket, and the handling of the messages it returned.
struct Connection::Round {
  /// Charged before the call is taken, so that a call that exceeds the limit is not read at all.
  wire::Charge next_call;
  bool took_message = false;
  std::string broken;  // why the connection must end; empty if it need not
};

}  // namespace kelvane::xpc
