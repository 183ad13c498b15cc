#include "platform/foundation/directory_enumerator.h"

#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

DirectoryEnumerator::DirectoryEnumerator(const std::string& directory, std::size_t depth) : depth_(depth) {
  if (directory.find('\0') == std::string::npos) enter(open(AT_FDCWD, directory, 0), "");
}

std::optional<std::string> DirectoryEnumerator::next() {
  while (!levels_.empty() && levels_.back().next == levels_.back().entries.size()) levels_.pop_back();
  if (levels_.empty()) return std::nullopt;
  Level& level = levels_.back();
  const Entry& entry = level.entries[level.next++];
  std::string path = level.prefix + entry.name;
  if (entry.may_be_directory && levels_.size() < depth_) {
    enter(open(::dirfd(level.directory.get()), entry.name, O_NOFOLLOW), path + "/");
  }
  return path;
}

/// O_DIRECTORY refuses all else before it is opened, so a FIFO or device of that name is not disturbed.
DirectoryEnumerator::Directory DirectoryEnumerator::open(int parent, const std::string& name, int follow) {
  FileDescriptor file(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow));
  if (!file) return nullptr;
  Directory directory(::fdopendir(file.get()));
  if (directory != nullptr) static_cast<void>(file.release());
  return directory;
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

void DirectoryEnumerator::enter(Directory directory, std::string prefix) {
  if (directory == nullptr) return;
  std::vector<Entry> entries = entriesOf(directory.get());
  levels_.push_back({std::move(directory), std::move(prefix), std::move(entries), 0});
}

void enumerateDirectory(const std::string& directory,
                        const std::function<void(const std::string&)>& handler) {
  DirectoryEnumerator enumerator(directory);
  while (const auto entry = enumerator.next()) handler(*entry);
}

}  // namespace kelvane
