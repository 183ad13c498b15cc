#include "platform/foundation/directory_enumerator.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

DirectoryEnumerator::DirectoryEnumerator(const std::string& directory) {
  if (directory.find('\0') == std::string::npos) enter(open(AT_FDCWD, directory.c_str(), 0));
}

std::optional<std::string> DirectoryEnumerator::next() {
  while (!levels_.empty() && levels_.back().next == levels_.back().entries.size()) leave();
  if (levels_.empty()) return std::nullopt;
  Level& level = levels_.back();
  const Entry& entry = level.entries[level.next++];
  path_.resize(level.prefix_size);
  path_ += entry.name;
  std::string path = path_;
  if (entry.may_be_directory && level.directory != nullptr) {
    path_ += '/';
    enter(open(::dirfd(level.directory.get()), entry.name.c_str(), O_NOFOLLOW));
  }
  return path;
}

/// O_DIRECTORY refuses all else before it is opened, so a FIFO or device of that name is not disturbed.
DirectoryEnumerator::Directory DirectoryEnumerator::open(int parent, const char* name, int follow) {
  FileDescriptor file(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow));
  if (!file) return nullptr;
  Directory directory(::fdopendir(file.get()));
  if (directory != nullptr) static_cast<void>(file.release());
  return directory;
}

std::optional<DirectoryEnumerator::Identity> DirectoryEnumerator::identityOf(DIR* directory) {
  struct stat status {};
  if (::fstat(::dirfd(directory), &status) != 0) return std::nullopt;
  return Identity(status.st_dev, status.st_ino);
}

std::vector<DirectoryEnumerator::Entry> DirectoryEnumerator::entriesOf(DIR* directory) {
  std::vector<Entry> entries;
  while (const dirent* found = ::readdir(directory)) {
    const std::string_view name = found->d_name;
    if (name == "." || name == "..") continue;
    entries.push_back({std::string(name), found->d_type == DT_DIR || found->d_type == DT_UNKNOWN});
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

/// Called when path_ is the path of its entries.
void DirectoryEnumerator::enter(Directory directory) {
  if (directory == nullptr) return;
  const auto identity = identityOf(directory.get());
  if (!identity || !entered_.insert(*identity).second) return;
  std::vector<Entry> entries = entriesOf(directory.get());
  levels_.push_back({std::move(directory), *identity, path_.size(), std::move(entries), 0});
  if (levels_.size() > most_open) levels_[levels_.size() - most_open - 1].directory.reset();
}

void DirectoryEnumerator::leave() {
  const Level left = std::move(levels_.back());
  levels_.pop_back();
  entered_.erase(left.identity);
  if (levels_.empty() || levels_.back().directory != nullptr || left.directory == nullptr) return;
  Directory above = open(::dirfd(left.directory.get()), "..", O_NOFOLLOW);
  const bool was_moved = above == nullptr || identityOf(above.get()) != levels_.back().identity;
  if (!was_moved) levels_.back().directory = std::move(above);
}

void enumerateDirectory(const std::string& directory,
                        const std::function<void(const std::string&)>& handler) {
  DirectoryEnumerator enumerator(directory);
  while (const auto entry = enumerator.next()) handler(*entry);
}

}  // namespace kelvane
