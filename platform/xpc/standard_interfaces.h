#pragma once

// What stock tools expect of every peer, whatever it exports: org.freedesktop.DBus.Peer, Introspectable and
// Properties, and the few calls to a message bus that they make before they speak to anybody else. Source:
// the D-Bus specification, "Standard Interfaces".

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

/// The exported method that the call is for; null when it is for none. A call without an interface is for the
/// first method of that name.
[[nodiscard]] const MethodDescription* exportedMethod(const Exported& exported, const wire::Header& call);

/// Builds the answer to any other call: a reply of a standard interface, or an error that says what is
/// unknown or wrong. The body has been found to be valid.
void answerStandardCall(const Exported& exported, const wire::Message& call, wire::Outgoing& answer);

/// The error for arguments of another signature than the method takes.
[[nodiscard]] std::string wrongArguments(const wire::Header& call, const std::string& expected);

/// The machine's ID, as D-Bus writes it; empty when the file holds none.
[[nodiscard]] std::string machineID(const std::string& path = "/etc/machine-id");

}  // namespace kelvane::xpc
