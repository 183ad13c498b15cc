#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "platform/foundation/file_descriptor.h"
#include "platform/foundation/suite_file.h"

namespace kelvane::foundation {
namespace {

/// The suffixes of a database and of the files beside it. The log comes last: if the process ends during the
/// renames, the log stays where `visibleDamage` finds it.
constexpr std::array<const char*, 5> companions = {"", "-journal", "-mark", "-shm", "-wal"};

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

off_t sizeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

bool isFree(const std::string& path) {
  return std::none_of(companions.begin(), companions.end(), [&](const char* c) { return exists(path + c); });
}

/// Never onto another file; where the file system cannot promise that, the name was free a moment ago.
bool renameAside(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  return errno == EINVAL && ::rename(from.c_str(), to.c_str()) == 0;
}

void syncDirectoryOf(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  const FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened) ::fsync(opened.get());
}

}  // namespace

std::string_view visibleDamage(const std::string& path) {
  const off_t size = sizeOf(path);
  const off_t log_size = sizeOf(path + "-wal");
  // SQLite deletes the log of a database without a page.
  if (size == 0 && log_size > 0) return "its log was left without it";
  // It fills up a page that is cut off with zeros. With a log that is right: the log still has the page. With
  // a journal too: the power failed while the file was begun, and the journal takes it back to nothing.
  const bool is_repaired = log_size > 0 || sizeOf(path + "-journal") > 0;
  if (size % suite_page_size != 0 && !is_repaired) return "its last page is cut off";
  return {};
}

std::string setSuiteAside(const std::string& path) {
  unsigned number = 1;
  while (!isFree(fmt::format("{}.damaged-{}", path, number))) ++number;
  std::string aside = fmt::format("{}.damaged-{}", path, number);
  for (const char* companion : companions) {
    if (exists(path + companion) && !renameAside(path + companion, aside + companion)) return {};
  }
  syncDirectoryOf(path);
  return aside;
}

}  // namespace kelvane::foundation
