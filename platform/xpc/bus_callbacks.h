#pragma once

// The C functions that the bus library calls. For connection.cpp.

#include <systemd/sd-bus.h>

#include "platform/xpc/remote_interface.h"

namespace kelvane::xpc {

/// The library's table of methods and properties for an interface, with the functions that get every method
/// call and every reading of a property. Built once for each interface; lives as long as the process.
const sd_bus_vtable* vtableOf(const InterfaceDescription& interface, sd_bus_message_handler_t call,
                              sd_bus_property_get_t read);

/// Answers, at /org/freedesktop/DBus, what stock tools ask of a message bus before they speak to a peer.
int answerBusDriver(sd_bus_message* message, void* userdata, sd_bus_error* error);

}  // namespace kelvane::xpc
