#pragma once

#include <sys/stat.h>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {

/// Opens the directory at a path below `folder`, or nothing, with the reason in errno: through no link and
/// into no mount. ".." is an ordinary name.
[[nodiscard]] FileDescriptor openBelow(int folder, const char* path);

/// Walks all regular files below a folder once, without recursion: those of a folder, then its folders. A
/// folder that was entered is known by its descriptor, so what it is replaced by is never entered. Far up,
/// descriptors are closed; the way back is "..", which must then be the folder that it was.
///
/// Used once.
class FolderWalk {
 public:
  /// Who may be shown the files of one folder.
  enum class Threads {
    one,
    /// Where a folder has many, another thread, with the same rights, visits them at the same time: `done`,
    /// `file` and `failed` are called by both.
    two,
  };
  class Visitor {
   public:
    virtual ~Visitor() = default;
    /// Asked before each file.
    [[nodiscard]] virtual bool done() = 0;
    virtual void file(int folder, const char* name, const struct stat& status) = 0;
    virtual void entered(const std::string& name) = 0;
    /// All below was visited.
    virtual void left(int parent, const std::string& name) = 0;
    /// `error` is errno's.
    virtual void failed(int error) = 0;
  };

  /// Unless it `looks`, files get no status.
  explicit FolderWalk(Visitor& visitor, Threads threads = Threads::one, bool looks = true);
  /// False, with the reason in errno, when there was no reading the folder.
  bool run(int folder);

 private:
  struct Level {
    std::string name;
    FileDescriptor folder;           // closed while the walk is far below
    struct stat identity {};         // since then
    std::vector<std::string> below;  // still to be entered
  };

  bool enter(FileDescriptor folder, std::string name);
  void enterNext();
  void leave();
  bool comeBack(const Level& from);
  unsigned char typeOf(int folder, const char* name, unsigned char listed);
  void visitFiles(int folder);
  void visitFile(int folder, const char* name);

  Visitor& visitor_;
  const Threads threads_;
  const bool looks_;
  std::vector<char> entries_;
  std::vector<const char*> files_;  // among these entries
  std::vector<Level> levels_;
};

}  // namespace kelvane::client
