#include <sys/wait.h>
#include <unistd.h>

#include "tests/wire/peers.h"

namespace kelvane::wire::peers {

namespace {

void becomeGdbus(const char* what, const std::string& path) {
  ::execl("/usr/bin/python3", "python3", GDBUS_PEER, what, path.c_str(), nullptr);
}

}  // namespace

void serveWithGdbus(const std::string& path) { becomeGdbus("serve", path); }

/// Returns only when there is no such program; else the exit status of the process says it.
bool callWithGdbus(const std::string& path) {
  becomeGdbus("call", path);
  return false;
}

}  // namespace kelvane::wire::peers
