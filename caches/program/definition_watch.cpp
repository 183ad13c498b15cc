#include "caches/program/definition_watch.h"

#include <sys/inotify.h>
#include <unistd.h>
#include <algorithm>
#include <array>

namespace kelvane::caches {

DefinitionWatch::DefinitionWatch(const DefinitionDirectories& directories)
    : notify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  watch(directories.shipped);
  watch(directories.own);
}

/// While the directory is missing, watches the nearest one above it; anything that appears in that counts as
/// a change.
void DefinitionWatch::watch(std::string directory) {
  constexpr std::uint32_t changes =
      IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF;
  constexpr std::uint32_t appearances = IN_CREATE | IN_MOVED_TO;
  if (::inotify_add_watch(notify_.get(), directory.c_str(), changes | IN_ONLYDIR) >= 0) return;
  while (directory.rfind('/') != std::string::npos && directory.size() > 1) {
    directory.resize(std::max<std::size_t>(directory.rfind('/'), 1));
    if (::inotify_add_watch(notify_.get(), directory.c_str(), appearances | IN_ONLYDIR) >= 0) return;
  }
}

void DefinitionWatch::read() {
  alignas(inotify_event) std::array<char, 4096> events{};
  while (::read(notify_.get(), events.data(), events.size()) > 0) happened_ = true;
}

}  // namespace kelvane::caches
