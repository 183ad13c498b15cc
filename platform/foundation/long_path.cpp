#include "platform/foundation/long_path.h"

#include <climits>
#include <utility>

namespace kelvane {

std::optional<ReachablePath> reachablePath(const std::string& path) {
  ReachablePath reachable{FileDescriptor(), path};
  while (reachable.rest.size() >= PATH_MAX) {
    const std::size_t slash = reachable.rest.rfind('/', PATH_MAX - 1);
    if (slash == std::string::npos || slash == 0) break;  // the kernel refuses a name of this length
    const std::string way = reachable.rest.substr(0, slash);
    FileDescriptor directory(::openat(reachable.at(), way.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return std::nullopt;
    reachable.directory = std::move(directory);
    reachable.rest.erase(0, reachable.rest.find_first_not_of('/', slash));
  }
  return reachable;
}

}  // namespace kelvane
