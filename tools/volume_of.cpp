#include "tools/volume_of.h"

#include <fmt/format.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "support/local_volumes.h"
#include "support/volumes.h"
#include "tools/problem.h"

namespace kelvane::tools {
namespace {

std::string resolved(const std::string& path) {
  char* const real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) {
    throw Problem(exit_usage,
                  fmt::format("\"{}\": {}; name a volume, or a path inside one: `kelvanectl status` "
                              "shows the volumes",
                              path, std::strerror(errno)));
  }
  std::string result = real;
  std::free(real);
  return result;
}

bool holds(const std::string& mount, const std::string& path) {
  return mount == "/" || path == mount || path.starts_with(mount + "/");
}

}  // namespace

std::string volumeOf(const std::string& path) {
  const std::string real = resolved(path);
  const std::vector<MountEntry> mounts = VolumeSource::current().mounts();
  const MountEntry* holder = nullptr;
  for (const MountEntry& mount : mounts) {  // of several at one path the last hides the others
    if (holds(mount.target, real) && (holder == nullptr || mount.target.size() >= holder->target.size()))
      holder = &mount;
  }
  // The same device may be mounted in several places, of which one stands for it.
  for (const MountEntry& volume : localVolumesAmong(mounts)) {
    if (holder != nullptr && volume.device == holder->device) return volume.target;
  }
  throw Problem(exit_usage,
                fmt::format("\"{}\" is on {}, which is no volume that the daemon serves: `kelvanectl "
                            "status` shows those",
                            path, holder != nullptr ? holder->target : "nothing"));
}

}  // namespace kelvane::tools
