#pragma once

#include <dirent.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

/// Walks everything below a directory: each entry at any depth whatever its name, folders included, as a path
/// relative to the directory. The entries of one folder come in the order of their names' bytes, a folder
/// right before its contents, so two walks of one tree are the same.
///
/// Symbolic links below the directory are reported and never followed, so the walk cannot loop or leave; the
/// directory itself may be reached through one. A missing or unreadable directory yields nothing, an
/// unreadable folder only itself. A folder deeper than the depth limit is reported but not entered. What
/// changes during the walk may or may not be seen.
///
/// Holds one open directory for each level it is in. Used by one thread at a time; throws nothing of its own.
class DirectoryEnumerator {
 public:
  static constexpr std::size_t depth_limit = 64;

  explicit DirectoryEnumerator(const std::string& directory, std::size_t depth = depth_limit);

  /// The next entry, or none when the walk is over.
  [[nodiscard]] std::optional<std::string> next();

 private:
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  using Directory = std::unique_ptr<DIR, Close>;
  struct Entry {
    std::string name;
    bool may_be_directory;  // the file system need not say
  };
  struct Level {
    Directory directory;
    std::string prefix;  // of its entries: empty, or a path that ends in a slash
    std::vector<Entry> entries;
    std::size_t next;
  };

  static Directory open(int parent, const std::string& name, int follow);
  static std::vector<Entry> entriesOf(DIR* directory);
  void enter(Directory directory, std::string prefix);

  // Only the thread that uses the object.
  const std::size_t depth_;
  std::vector<Level> levels_;
};

/// Calls `handler` with each entry that a DirectoryEnumerator of `directory` gives.
void enumerateDirectory(const std::string& directory, const std::function<void(const std::string&)>& handler);

}  // namespace kelvane
