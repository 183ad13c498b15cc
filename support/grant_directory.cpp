#include "support/grant_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

namespace kelvane {
namespace {

struct Close {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

GrantDirectory failure(std::string problem) { return {{}, {}, std::move(problem)}; }

GrantDirectory failure(int error) {
  return error == ENOENT ? GrantDirectory() : failure(std::strerror(error));
}

/// `what` is the grammatical subject of the answer; an empty answer means that the directory is trusted.
std::string whyDistrusted(const FileDescriptor& directory, const std::string& what) {
  struct stat status {};
  if (::fstat(directory.get(), &status) != 0) return what + ": " + std::strerror(errno);
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) return what + " is owned by another user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write " + what;
  return {};
}

bool isLink(const FileDescriptor& parent, const std::string& name) {
  struct stat status {};
  return ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

/// False, with errno, when the directory cannot be read to its end.
bool list(const FileDescriptor& directory, std::vector<std::string>& files) {
  const int copy = ::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, Close> entries(copy >= 0 ? ::fdopendir(copy) : nullptr);
  if (entries == nullptr) return false;
  errno = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    if (std::filesystem::path(entry->d_name).extension() == ".plist") files.emplace_back(entry->d_name);
  }
  std::sort(files.begin(), files.end());
  return errno == 0;
}

}  // namespace

GrantDirectory openGrantDirectory(const std::string& path) {
  const std::filesystem::path place(path);
  const FileDescriptor parent(::open(place.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!parent) return failure(errno);
  if (isLink(parent, place.filename())) return failure("it is a symbolic link");
  FileDescriptor directory(
      ::openat(parent.get(), place.filename().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return failure(errno);
  std::string problem = whyDistrusted(directory, "it");
  if (problem.empty()) problem = whyDistrusted(parent, "the directory that holds it");
  if (!problem.empty()) return failure(std::move(problem));
  GrantDirectory result;
  if (!list(directory, result.files)) return failure(errno);
  result.directory = std::move(directory);
  return result;
}

}  // namespace kelvane
