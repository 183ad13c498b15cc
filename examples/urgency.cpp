#include "examples/reclaim.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>

namespace kelvane::examples {
namespace {

constexpr int deepest = 64;  // folders in folders; each holds a descriptor while it is read
constexpr std::uint64_t block = 512;
constexpr int most_urgent = 4;

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

FileDescriptor openFolder(int parent, const char* name) {
  return FileDescriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

bool isDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

std::uint64_t freedBy(const struct stat& file) {
  return S_ISREG(file.st_mode) && file.st_nlink == 1 ? static_cast<std::uint64_t>(file.st_blocks) * block : 0;
}

}  // namespace

std::optional<CacheFolder> CacheFolder::open(const std::string& path, std::string& reason) {
  FileDescriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status {};
  if (!root || ::fstat(root.get(), &status) != 0) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  return CacheFolder(std::move(root), status.st_dev);
}

// --- looking ---

std::vector<CachedFile> CacheFolder::files(Seconds modified_by) const {
  std::vector<CachedFile> found;
  collect(openFolder(root_.get(), "."), "", 0, found);
  std::erase_if(found, [&](const CachedFile& file) { return file.modified > modified_by; });
  std::sort(found.begin(), found.end(), [](const CachedFile& a, const CachedFile& b) {
    return std::tie(a.modified, a.path) < std::tie(b.modified, b.path);
  });
  return found;
}

void CacheFolder::collect(FileDescriptor folder, const std::string& prefix, int depth,
                          std::vector<CachedFile>& found) const {
  const OpenFolder reading(folder ? ::fdopendir(folder.get()) : nullptr);
  if (reading == nullptr) return;
  const int descriptor = folder.release();  // closed with `reading`
  while (const dirent* const entry = ::readdir(reading.get())) {
    struct stat status {};
    if (isDots(entry->d_name) || ::fstatat(descriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        status.st_dev != device_) {
      continue;
    }
    std::string path = prefix + entry->d_name;
    if (S_ISREG(status.st_mode)) {
      found.push_back({std::move(path), status.st_mtim.tv_sec, freedBy(status)});
    } else if (S_ISDIR(status.st_mode) && depth < deepest) {
      collect(openFolder(descriptor, entry->d_name), path + "/", depth + 1, found);
    }
  }
}

std::uint64_t CacheFolder::bytes(Seconds modified_by) const {
  std::uint64_t sum = 0;
  for (const CachedFile& file : files(modified_by)) sum += file.bytes;
  return sum;
}

// --- deleting ---

Reclaimed CacheFolder::reclaim(std::uint64_t amount, Seconds modified_by,
                               const std::function<bool()>& cancelled) const {
  Reclaimed reclaimed;
  if (amount == 0) return reclaimed;
  for (const CachedFile& file : files(modified_by)) {
    if (reclaimed.bytes >= amount || cancelled()) break;
    if (file.bytes == 0) continue;  // nothing to be gained
    bool removed = false;
    reclaimed.bytes += remove(file.path, modified_by, removed);
    if (removed) ++reclaimed.files;
  }
  return reclaimed;
}

FileDescriptor CacheFolder::parentOf(const std::string& path) const {
  FileDescriptor folder = openFolder(root_.get(), ".");
  for (std::size_t at = 0, slash = path.find('/'); folder && slash != std::string::npos;
       at = slash + 1, slash = path.find('/', at)) {
    folder = openFolder(folder.get(), path.substr(at, slash - at).c_str());
  }
  struct stat status {};
  if (folder && (::fstat(folder.get(), &status) != 0 || status.st_dev != device_)) folder.reset();
  return folder;
}

/// The file is held while its name goes, so that what is reported is what went: nothing when it has got
/// another name in between. What somebody else holds open goes when he lets go.
std::uint64_t CacheFolder::remove(const std::string& path, Seconds modified_by, bool& removed) const {
  const FileDescriptor folder = parentOf(path);
  if (!folder) return 0;
  const std::string name = path.substr(path.rfind('/') + 1);
  const FileDescriptor file(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat before {};
  if (!file || ::fstat(file.get(), &before) != 0) return 0;
  const std::uint64_t bytes = freedBy(before);
  if (bytes == 0 || before.st_dev != device_ || before.st_mtim.tv_sec > modified_by) return 0;
  if (::unlinkat(folder.get(), name.c_str(), 0) != 0) return 0;
  removed = true;
  struct stat after {};
  return ::fstat(file.get(), &after) == 0 && after.st_nlink == 0 ? bytes : 0;
}

Seconds givenUpAt(int urgency, Seconds now, Seconds lifetime) {
  if (urgency >= most_urgent) return std::numeric_limits<Seconds>::max();
  const Seconds quarters = most_urgent - std::max(urgency, 1);
  return now - lifetime / most_urgent * quarters;
}

}  // namespace kelvane::examples
