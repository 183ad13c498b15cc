#pragma once

#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/random_choices.h"

namespace kelvane::test {

/// SQLite's default VFS on a disk whose power fails.
///
/// The files are the default VFS's own, so who looks at them sees all that was written. Beside them this
/// keeps what is on the disk: a write or a truncation is once its file is synced, a creation or a deletion
/// once the directory is. SQLite asks for the latter with a deletion, and the default VFS does it of itself
/// with the first sync of a journal or log opened to be created.
///
/// When the power fails, what was not synced gets to the disk or not, each by chance. Of a write, whole
/// sectors of 512 bytes may be missing, or all but the length it gave the file. Creations and deletions alone
/// keep their order, as on any file system with a journal.
///
/// One at a time; files opened through it are closed before it goes.
class PowerLossVFS {
 public:
  static constexpr const char* name = "power-loss";

  explicit PowerLossVFS(RandomChoices& choices);
  PowerLossVFS(const PowerLossVFS&) = delete;
  PowerLossVFS& operator=(const PowerLossVFS&) = delete;
  ~PowerLossVFS();

  /// After this many more writes, truncations, syncs, creations and deletions the next one does not return:
  /// it and everything after it fails.
  void failAfter(std::size_t operations) { operations_left_ = operations; }
  [[nodiscard]] bool hasFailed() const { return has_failed_; }

  /// With all files closed: the power fails if it did not before, the files become what is on the disk, and
  /// there is power again. Shared memory is gone.
  void losePower();

 private:
  struct Change {
    enum { write, truncate } kind;
    std::size_t at;     // offset, or the new size
    std::string bytes;  // of a write
  };
  struct File {
    std::string synced;
    std::vector<Change> unsynced;
  };
  using Directory = std::map<std::string, std::shared_ptr<File>>;  // null: there is none of that name
  struct Handle {
    const sqlite3_io_methods* real;
    sqlite3_io_methods methods;
    std::shared_ptr<File> file;
    bool syncs_directory;  // with its next sync
  };

  static PowerLossVFS*& current();
  static Handle& handleOf(sqlite3_file* file) { return current()->handles_.at(file); }
  static int open(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* out_flags);
  static int remove(sqlite3_vfs* vfs, const char* path, int syncs_directory);
  static int close(sqlite3_file* file);
  static int read(sqlite3_file* file, void* bytes, int count, sqlite3_int64 at);
  static int size(sqlite3_file* file, sqlite3_int64* bytes);
  static int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at);
  static int truncate(sqlite3_file* file, sqlite3_int64 size);
  static int sync(sqlite3_file* file, int flags);

  bool powerFails();
  void enter(const std::string& path, std::shared_ptr<File> file);
  void syncDirectory();
  std::string salvaged(const File& file);
  void salvage(std::string& content, const Change& change);

  RandomChoices& choices_;
  sqlite3_vfs vfs_;
  std::size_t operations_left_ = 0;
  bool has_failed_ = false;
  std::map<sqlite3_file*, Handle> handles_;
  Directory seen_;                                                       // what SQLite sees
  Directory synced_;                                                     // what is on the disk
  std::vector<std::pair<std::string, std::shared_ptr<File>>> unsynced_;  // what leads from that to this
};

}  // namespace kelvane::test
