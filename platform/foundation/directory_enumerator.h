#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kelvane {

/// Walks everything below a directory: each entry at any depth whatever its name, subdirectories included, as
/// a path relative to the directory. The entries of one directory come in the order of their names' bytes, a
/// subdirectory right before its contents, so two walks of one tree are the same.
///
/// Symbolic links below the directory are reported and never followed; the directory itself may be reached
/// through one. A directory that the walk is already in is reported and not entered again, so bind mounts
/// cannot make the walk endless. A missing or unreadable directory yields nothing; of an unreadable
/// subdirectory only its own name is reported. Changes during the walk may or may not be seen.
///
/// Neither the depth of the tree nor the length of its paths is limited: each directory is opened relative to
/// the one above. Only the innermost directories stay open; an outer one is reopened, as "..", when the walk
/// returns to it. Used by one thread at a time; throws nothing of its own.
class DirectoryEnumerator {
 public:
  static constexpr std::size_t most_open = 32;

  explicit DirectoryEnumerator(const std::string& directory);

  /// The next entry, or none when the walk is over.
  [[nodiscard]] std::optional<std::string> next();

 private:
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  using Directory = std::unique_ptr<DIR, Close>;
  using Identity = std::pair<dev_t, ino_t>;
  struct Entry {
    std::string name;
    bool may_be_directory;  // the file system need not say
  };
  struct Level {
    Directory directory;  // null while closed, or permanently if reopening failed
    Identity identity;
    std::size_t prefix_size;  // of its entries' paths
    std::vector<Entry> entries;
    std::size_t next;
  };

  static Directory open(int parent, const char* name, int follow);
  static std::optional<Identity> identityOf(DIR* directory);
  static std::vector<Entry> entriesOf(DIR* directory);
  void enter(Directory directory);
  void leave();

  // Only the thread that uses the object.
  std::string path_;  // to the entries of the innermost level: empty, or ends in a slash
  std::vector<Level> levels_;
  std::set<Identity> entered_;  // the directories of levels_
};

/// Calls `handler` with each entry that a DirectoryEnumerator of `directory` gives.
void enumerateDirectory(const std::string& directory, const std::function<void(const std::string&)>& handler);

}  // namespace kelvane
