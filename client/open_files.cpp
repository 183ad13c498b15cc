#include "client/open_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds stays_true_for{100};
constexpr std::size_t most_mapping_bytes = std::size_t{16} << 20;  // of one process

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

Directory openDirectory(int at, const char* name) {
  FileDescriptor opened(::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* const directory = opened ? ::fdopendir(opened.get()) : nullptr;
  if (directory != nullptr) static_cast<void>(opened.release());
  return {directory, ::closedir};
}

bool isNumber(const char* name) { return std::isdigit(static_cast<unsigned char>(*name)) != 0; }

/// The number of the file in a line of /proc/PID/maps; 0 when it maps none.
std::uint64_t mappedFile(const char* line) {
  unsigned long long number = 0;
  return std::sscanf(line, "%*s %*s %*s %*s %llu", &number) == 1 ? number : 0;
}

}  // namespace

void OpenFiles::refresh() {
  files_.clear();
  too_many_ = false;
  const Directory processes = openDirectory(AT_FDCWD, "/proc");
  too_many_ = processes == nullptr;
  while (!too_many_) {
    const dirent* const entry = ::readdir(processes.get());
    if (entry == nullptr) break;
    if (!isNumber(entry->d_name)) continue;
    const FileDescriptor process(
        ::openat(::dirfd(processes.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (process) addProcess(process.get());
  }
  dropRepeated();
  refreshed_at_ = std::chrono::steady_clock::now();
}

void OpenFiles::refreshWhenOld() {
  if (std::chrono::steady_clock::now() - refreshed_at_ > stays_true_for) refresh();
}

bool OpenFiles::have(dev_t device, ino_t number) const {
  const auto known = [&](std::uint64_t on) {
    return std::binary_search(files_.begin(), files_.end(), File{on, number});
  };
  return too_many_ || known(device) || known(0);
}

void OpenFiles::addProcess(int process) {
  addDescriptors(process);
  addMappings(process);
}

/// Does not query a server, which might never answer.
void OpenFiles::addDescriptors(int process) {
  const Directory descriptors = openDirectory(process, "fd");
  if (descriptors == nullptr) return;
  while (const dirent* const entry = ::readdir(descriptors.get())) {
    struct statx status {};
    if (!isNumber(entry->d_name) || ::statx(::dirfd(descriptors.get()), entry->d_name, AT_STATX_DONT_SYNC,
                                            STATX_TYPE | STATX_INO, &status) != 0) {
      continue;
    }
    if (S_ISREG(status.stx_mode))
      add({gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino});
  }
}

void OpenFiles::addMappings(int process) {
  const FileDescriptor maps(::openat(process, "maps", O_RDONLY | O_CLOEXEC));
  std::string text;
  std::array<char, 16384> some;
  std::uint64_t last = 0;
  for (std::size_t bytes = 0; maps && bytes < most_mapping_bytes;) {
    const ssize_t length = ::read(maps.get(), some.data(), some.size());
    if (length <= 0) return;
    bytes += static_cast<std::size_t>(length);
    text.append(some.data(), static_cast<std::size_t>(length));
    std::size_t line = 0;
    for (std::size_t end = 0; (end = text.find('\n', line)) != std::string::npos; line = end + 1) {
      text[end] = '\0';
      const std::uint64_t number = mappedFile(text.c_str() + line);
      if (number != 0 && number != last) add({0, number});
      last = number;
    }
    text.erase(0, line);
  }
  if (maps) too_many_ = true;
}

void OpenFiles::add(File file) {
  if (files_.size() == most_files) dropRepeated();
  if (files_.size() < most_files) {
    files_.push_back(file);
  } else {
    too_many_ = true;
  }
}

void OpenFiles::dropRepeated() {
  std::sort(files_.begin(), files_.end());
  files_.erase(std::unique(files_.begin(), files_.end()), files_.end());
}

}  // namespace kelvane::client
