#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <cstddef>
#include <memory>
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
/// Memory is bounded: at most `names_bytes` of the names of folders that are still to be entered are kept. A
/// folder that has more is listed again from the place where the kept names end.
///
/// Used once.
class FolderWalk {
 public:
  static constexpr std::size_t deepest = 65'536;  // levels; deeper ones are skipped
  static constexpr std::size_t names_bytes = std::size_t{1} << 20;

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
    virtual void file(int folder, const char* name, const struct statx& status) = 0;
    /// Neither a regular file nor a folder.
    virtual void other(int /*folder*/, const char* /*name*/) {}
    /// Asked before a folder is opened.
    [[nodiscard]] virtual bool wants(const std::string& /*name*/) { return true; }
    /// Whether to walk it. If not, `left` is not called for it.
    [[nodiscard]] virtual bool entered(int parent, int folder, const std::string& name) = 0;
    /// Everything below was visited. `parent` is -1 when it cannot be reopened.
    virtual void left(int parent, const std::string& name) = 0;
    /// A folder that cannot be opened. It is not a failure when it is gone, was replaced by a link or a file,
    /// or is another mount.
    virtual void notEntered(const std::string& name, int error);
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
    FileDescriptor folder;  // closed while the walk is far below
    dev_t device = 0;       // since then, with its number
    ino_t number = 0;
    std::vector<std::string> below;  // still to be entered
    bool more = false;               // there are others than these, listed from `from` on
    off_t from = 0;
  };

  bool enter(FileDescriptor folder, std::string name);
  bool list(Level& level, std::size_t bytes, bool files);
  void keepName(Level& level, const char* name, off_t before);
  bool listMore(Level& level);
  void enterNext();
  void closeFar();
  void leave();
  bool comeBack(const Level& from);
  unsigned char typeOf(int folder, const char* name, unsigned char listed);
  void visitFiles(int folder);
  void visitFile(int folder, const char* name);

  Visitor& visitor_;
  const Threads threads_;
  const bool looks_;
  const std::unique_ptr<char[]> entries_;
  std::vector<const char*> files_;  // among these entries
  std::vector<Level> levels_;
  std::size_t names_ = 0;  // bytes of all that is in `below`
};

}  // namespace kelvane::client
