#pragma once

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::tests {

/// What happens in a directory from now on.
class DirectoryEvents {
 public:
  DirectoryEvents(const std::string& directory, std::uint32_t mask) {
    if (::inotify_add_watch(events_.get(), directory.c_str(), mask) < 0) {
      throw std::runtime_error("cannot watch " + directory);
    }
  }

  /// Blocks until something happened that was not yet told; how many things by now.
  std::size_t await() const {
    std::array<char, 4096> buffer{};
    const ssize_t size = ::read(events_.get(), buffer.data(), buffer.size());
    std::size_t count = 0;
    for (ssize_t at = 0; at < size; ++count) {
      inotify_event event{};
      std::copy_n(buffer.data() + at, sizeof event, reinterpret_cast<char*>(&event));
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
    return count;
  }
  [[nodiscard]] bool pending() const {
    pollfd poll{events_.get(), POLLIN, 0};
    return ::poll(&poll, 1, 0) > 0;
  }

 private:
  const FileDescriptor events_{::inotify_init1(IN_CLOEXEC)};
};

}  // namespace kelvane::tests
