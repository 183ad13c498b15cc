#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace kelvane::test {

/// SQLite's default VFS, with syncs of logs counted and faults on demand. One at a time; files opened through
/// it are closed before it goes.
class FaultyVFS {
 public:
  static constexpr const char* name = "faulty";

  FaultyVFS() : vfs_(*sqlite3_vfs_find(nullptr)) {
    current() = this;
    vfs_.zName = name;
    vfs_.xOpen = open;
    if (sqlite3_vfs_register(&vfs_, 0) != SQLITE_OK) throw std::runtime_error("the VFS cannot be registered");
  }
  FaultyVFS(const FaultyVFS&) = delete;
  FaultyVFS& operator=(const FaultyVFS&) = delete;
  ~FaultyVFS() {
    sqlite3_vfs_unregister(&vfs_);
    current() = nullptr;
  }

  int log_syncs = 0;
  int write_result = SQLITE_OK;              ///< of each write to a log; writes nothing unless SQLITE_OK
  sqlite3_int64 most_log_bytes = INT64_MAX;  ///< there is no room for a log beyond these
  int next_read_result = SQLITE_OK;          ///< of the next read only

 private:
  static FaultyVFS*& current() {
    static FaultyVFS* vfs = nullptr;
    return vfs;
  }

  /// The file is the default VFS's own; only the table of functions of databases and logs is exchanged.
  static int open(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* out_flags) {
    sqlite3_vfs* const real = sqlite3_vfs_find(nullptr);
    const int result = real->xOpen(real, path, file, flags, out_flags);
    if (result != SQLITE_OK) return result;
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0) {
      exchange(file, current()->database_, current()->database_methods_);
      current()->database_methods_.xRead = readDatabase;
    } else if ((flags & SQLITE_OPEN_WAL) != 0) {
      exchange(file, current()->log_, current()->log_methods_);
      current()->log_methods_.xRead = readLog;
      current()->log_methods_.xSync = sync;
      current()->log_methods_.xWrite = write;
    }
    return result;
  }

  static void exchange(sqlite3_file* file, const sqlite3_io_methods*& real, sqlite3_io_methods& ours) {
    real = file->pMethods;
    ours = *real;
    file->pMethods = &ours;
  }

  static int readDatabase(sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
    const int result = std::exchange(current()->next_read_result, SQLITE_OK);
    return result != SQLITE_OK ? result : current()->database_->xRead(file, bytes, count, at);
  }
  static int readLog(sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
    const int result = std::exchange(current()->next_read_result, SQLITE_OK);
    return result != SQLITE_OK ? result : current()->log_->xRead(file, bytes, count, at);
  }
  static int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
    const int result = at + count > current()->most_log_bytes ? SQLITE_FULL : current()->write_result;
    return result != SQLITE_OK ? result : current()->log_->xWrite(file, bytes, count, at);
  }
  static int sync(sqlite3_file* file, int flags) {
    ++current()->log_syncs;
    return current()->log_->xSync(file, flags);
  }

  sqlite3_vfs vfs_;
  const sqlite3_io_methods* database_ = nullptr;
  const sqlite3_io_methods* log_ = nullptr;
  sqlite3_io_methods database_methods_{};
  sqlite3_io_methods log_methods_{};
};

}  // namespace kelvane::test
