#include "tools/volume_of.h"

#include <fmt/format.h>

#include "kelvane/volume.h"
#include "tools/problem.h"

namespace kelvane::tools {

std::string volumeOf(const std::string& path) {
  const client::Result<std::string> volume = client::volumeOf(path);
  if (volume) return *volume;
  throw Problem(
      exit_usage,
      fmt::format("{}; expected a volume or a path inside one: `kelvanectl status` lists the volumes",
                  volume.error().reason));
}

}  // namespace kelvane::tools
