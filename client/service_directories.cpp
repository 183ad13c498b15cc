#include "client/service_directories.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "client/volume_view.h"

namespace kelvane::client {
namespace {

using Identity = std::pair<dev_t, ino_t>;

Error wrongDirectory(const std::string& path, const std::string& why) {
  return {Failure::badRequest, "service directory \"" + path + "\": " + why};
}

Result<std::string> resolved(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), std::free);
  if (real == nullptr) return wrongDirectory(path, std::strerror(errno));
  const FileDescriptor directory(::open(real.get(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return wrongDirectory(path, std::strerror(errno));
  return std::string(real.get());
}

bool isInside(const std::string& path, const std::string& other) {
  return path.starts_with(other == "/" ? other : other + '/');
}

std::optional<Identity> directoryIdentity(const FileDescriptor& directory) {
  struct stat status {};
  if (!directory || ::fstat(directory.get(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
  return Identity(status.st_dev, status.st_ino);
}

}  // namespace

Result<ServiceDirectories> ServiceDirectories::of(const ServiceOptions& options) {
  const bool none = options.directories.empty();
  if (none && !options.all_volumes) {
    return Error{
        Failure::badRequest,
        "a service needs the directories of its data, or all_volumes when it finds out by itself what "
        "it has on a volume"};
  }
  if (!none && options.all_volumes)
    return Error{Failure::badRequest, "a service has either directories or all_volumes, not both"};
  ServiceDirectories result;
  for (const std::string& path : options.directories) {
    const Result<std::string> real = resolved(path);
    if (!real) return real.error();
    result.paths_.push_back(*real);
  }
  std::sort(result.paths_.begin(), result.paths_.end());
  result.paths_.erase(std::unique(result.paths_.begin(), result.paths_.end()), result.paths_.end());
  for (const std::string& path : result.paths_) {
    for (const std::string& other : result.paths_) {
      if (isInside(path, other))
        return wrongDirectory(path, "it is inside \"" + other + "\", so its data would count twice");
    }
  }
  return result;
}

std::vector<ServiceDirectories::Open> ServiceDirectories::openOn(const std::string& volume) const {
  std::vector<Open> all;
  const VolumeView before;
  for (const std::string& path : paths_) all.push_back({path, openPlainly(before, path)});
  // An open descriptor keeps its mount, so this table contains it.
  const VolumeView now;
  std::set<Identity> seen;
  std::erase_if(all, [&](const Open& open) {
    const std::optional<Identity> identity = directoryIdentity(open.directory);
    const MountEntry* const holder = identity ? now.holderOf(open.directory.get()) : nullptr;
    return holder == nullptr || !now.isOn(*holder, volume) || !seen.insert(*identity).second;
  });
  return all;
}

std::vector<std::string> pathsOf(const std::vector<ServiceDirectories::Open>& open) {
  std::vector<std::string> paths;
  paths.reserve(open.size());
  for (const ServiceDirectories::Open& one : open) paths.push_back(one.path);
  return paths;
}

}  // namespace kelvane::client
