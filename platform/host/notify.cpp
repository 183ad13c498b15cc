#include "platform/host/notify.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {
namespace {

std::string& directory() {
  static std::string& path = *new std::string("/run/kelvane/notify");
  return path;
}

bool isFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

/// Never waits: other processes can lock this file, or replace it, and must not block the caller. No lock is
/// taken, and a lease or a FIFO is an error.
FileDescriptor openCounter(const std::string& path) {
  constexpr int flags = O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
  return FileDescriptor(::open(path.c_str(), flags, 0644));
}

/// Adds one to the number that the file holds; anything else in it counts as 0.
bool bump(int descriptor) {
  std::array<char, 24> text{};
  const ssize_t length = ::pread(descriptor, text.data(), text.size() - 1, 0);
  if (length < 0) return false;
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + length, number);
  const std::string next = std::to_string(number + 1) + "\n";
  return ::pwrite(descriptor, next.data(), next.size(), 0) == static_cast<ssize_t>(next.size());
}

}  // namespace

void notify_set_directory(std::string path) { directory() = std::move(path); }

std::uint32_t notify_post(const char* name) {
  if (!isFileName(name)) {
    errno = EINVAL;
    return 1;
  }
  if (::mkdir(directory().c_str(), 0755) != 0 && errno != EEXIST) return 1;
  const std::string path = directory() + "/" + name;
  const FileDescriptor file = openCounter(path);
  if (!file) return 1;
  static std::mutex mutex;  // one process at a time posts a name; its threads take turns
  const std::lock_guard lock(mutex);
  return bump(file.get()) ? 0 : 1;
}

}  // namespace kelvane
