#include "kelvane/volume.h"

#include <fcntl.h>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "client/volume_view.h"

namespace kelvane::client {
namespace {

Error cannot(const std::string& what) { return {Failure::badRequest, what}; }

std::string quoted(const std::string& path) { return '"' + path + '"'; }

Error notServed(const std::string& what, const MountEntry* holder) {
  if (holder == nullptr) return cannot(what + " is on no mount of this process");
  return cannot(
      what + " is on " + holder->target + " (" + holder->type +
      "), which is not a volume that the daemon serves: it is read-only, virtual or over a network");
}

Result<std::string> volumeOf(const VolumeView& view, int descriptor, const std::string& what) {
  const MountEntry* const holder = view.holderOf(descriptor);
  if (holder == nullptr) return notServed(what, holder);
  if (const auto volume = view.volumeOf(*holder)) return *volume;
  return notServed(what, holder);
}

}  // namespace

Result<std::string> volumeOf(const std::string& path) {
  std::error_code error;
  const std::string absolute = path.empty() ? path : std::filesystem::absolute(path, error).string();
  if (error) return cannot(quoted(path) + ": " + error.message());
  if (const VolumeView view; view.mayNotAnswer(absolute))
    return notServed(quoted(path), view.holderByName(absolute));
  // An open descriptor keeps its mount, so the table is read afterwards.
  const FileDescriptor file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file) return cannot(quoted(path) + ": " + std::strerror(errno));
  return volumeOf(VolumeView(), file.get(), quoted(path));
}

Result<std::string> volumeOf(int descriptor) {
  if (::fcntl(descriptor, F_GETFD) < 0)
    return cannot("descriptor " + std::to_string(descriptor) + ": " + std::strerror(errno));
  return volumeOf(VolumeView(), descriptor, "what is open as descriptor " + std::to_string(descriptor));
}

bool isOnVolume(int descriptor, const std::string& volume) {
  const VolumeView view;
  const MountEntry* const holder = view.holderOf(descriptor);
  return holder != nullptr && view.isOn(*holder, volume);
}

}  // namespace kelvane::client
