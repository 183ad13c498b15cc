#pragma once

// What stock tools expect of every peer, whatever it exports: org.freedesktop.DBus.Peer,
// Introspectable and Properties, and the few calls to a message bus that they make first. Source:
// D-Bus, chapter "Standard Interfaces".

#include <string>

#include "platform/wire/header.h"
#include "platform/wire/writer.h"
#include "platform/xpc/remote_interface.h"

namespace kelvane::xpc {

/// What a connection exports.
struct Exported {
  const InterfaceDescription* interface = nullptr;  // null: nothing
  bool is_server = false;                           // answers as a message bus would at /org/freedesktop/DBus
};

/// The exported method that is called; null if there is none. A call without an interface selects the first
/// method with that name.
[[nodiscard]] const MethodDescription* exportedMethod(const Exported& exported, const wire::Header& call);

/// Builds the answer to any other call: a reply of a standard interface, or an error that says what is
/// unknown or wrong. The body must already be validated.
void answerStandardCall(const Exported& exported, const wire::Message& call, wire::Outgoing& answer);

/// The error for arguments whose signature differs from the method's.
[[nodiscard]] std::string wrongArguments(const wire::Header& call, const std::string& expected);

/// The machine ID, in D-Bus's format; empty if the file holds none.
[[nodiscard]] std::string machineID(const std::string& path = "/etc/machine-id");

}  // namespace kelvane::xpc
