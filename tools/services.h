#pragma once

#include <string>
#include <vector>

#include "tools/checked_file.h"
#include "tools/entitlement.h"

namespace kelvane::tools {

/// One descriptor that the daemon reads at its start.
struct Declared {
  CheckedFile file;
  std::string ID;             // empty when it declares none
  std::string overridden_by;  // the file that declares the same ID later, which counts
  bool listening = false;     // somebody listens on its socket, so a call reaches it
  std::string inode;          // of that socket
  Entitlement entitlement;    // whether it may check in by itself as well
};

/// The descriptors in these folders, in the order in which the daemon reads them.
[[nodiscard]] std::vector<Declared> declaredServices(const std::vector<std::string>& folders,
                                                     const std::string& sockets,
                                                     const std::string& unix_table = "/proc/net/unix");
/// Notes for each whether the grants let those that hold its socket now check in.
void noteEntitlements(std::vector<Declared>& services);
[[nodiscard]] std::string servicesScreen(const std::vector<Declared>& services, const Screen& screen);
[[nodiscard]] Value servicesValue(const std::vector<Declared>& services);

}  // namespace kelvane::tools
