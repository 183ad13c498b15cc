#pragma once

// Introspection data. Source: D-Bus, chapter "Introspection Data Format".

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/xpc/remote_interface.h"

namespace kelvane::xpc {

/// The data of one interface, as a document of its own: for code generators.
[[nodiscard]] std::string introspectionXml(const InterfaceDescription& interface);

/// The data of one object: its interfaces, and the names of its direct children.
[[nodiscard]] std::string introspectionXml(const std::vector<const InterfaceDescription*>& interfaces,
                                           const std::set<std::string_view>& children);

}  // namespace kelvane::xpc
