#pragma once

// Other implementations of D-Bus, each in a process of its own, with the same service and the same client:
// "Echo" answers its string; "Write" writes an "x" to the descriptor it is passed, and answers its string
// too.

#include <string>

namespace kelvane::wire::peers {

/// Serves connections at a socket of this path, one after the other, until the process is ended.
void serveWithSdBus(const std::string& path);
void serveWithLibdbus(const std::string& path);
void serveWithGdbus(const std::string& path);

/// Calls both and checks the answers; whether all was right.
bool callWithSdBus(const std::string& path);
bool callWithLibdbus(const std::string& path);
bool callWithGdbus(const std::string& path);

}  // namespace kelvane::wire::peers
