#pragma once

// What connection.cpp, connection_calls.cpp and connection_stream.cpp share.

#include <systemd/sd-bus.h>
#include <list>
#include <string>

#include "platform/xpc/connection.h"

namespace kelvane::xpc {

/// A call that waits for its reply.
struct Connection::PendingCall {
  Connection* connection;
  std::list<PendingCall>::iterator place;
  sd_bus_slot* slot = nullptr;
  std::string reply_signature;
  Read read;
  ErrorHandler on_error;
  Block answered;  // once there is an answer: what is to run on the queue
};

/// A socket out of which nothing ever comes; -1 (and errno) when it cannot be made. Shared by all.
int emptySocket();

/// What the bus library calls, with the connection's mutex held.
struct BusCallbacks {
  static int anything(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int call(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int read(sd_bus* bus, const char* path, const char* interface, const char* name,
                  sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int reply(sd_bus_message* message, void* userdata, sd_bus_error* error);
};

}  // namespace kelvane::xpc
