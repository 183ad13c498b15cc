#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>

#include "platform/foundation/suite_file.h"

namespace kelvane::foundation {
namespace {

/// Makes the file system allocate each page from `begin` to `end`, which are page boundaries behind all
/// content.
bool occupy(sqlite3_file* file, std::int64_t begin, std::int64_t end) {
  for (std::int64_t at = begin; at < end; at += suite_page_size) {
    if (file->pMethods->xWrite(file, "", 1, at + suite_page_size - 1) != SQLITE_OK) return false;
  }
  return true;
}

std::int64_t wholePages(std::int64_t bytes) {
  return (bytes + suite_page_size - 1) / suite_page_size * suite_page_size;
}

/// Requires half as much again to stay free: reserving room must not itself fill the volume.
bool volumeHas(const char* path, std::int64_t bytes) {
  struct statvfs space {};
  if (::statvfs(path, &space) != 0) return false;
  return space.f_bavail * space.f_frsize / 3 * 2 >= static_cast<std::uint64_t>(bytes);
}

}  // namespace

sqlite3_file* SuiteFile::fileOf(int operation) const {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(connection_.get(), "main", operation, &file);
  return file != nullptr && file->pMethods != nullptr ? file : nullptr;
}

/// Finds the room reserved earlier. A file with holes, such as a sparse copy, has none.
void SuiteFile::findRoom() {
  struct stat status {};
  const char* const path = sqlite3_db_filename(connection_.get(), "main");
  if (room_.file == 0 || path == nullptr || ::stat(path, &status) != 0) return;
  constexpr std::int64_t block = 512;
  if (status.st_blocks * block >= status.st_size) kept_.file = status.st_size;
  int chunk = static_cast<int>(wholePages(status.st_size));
  if (chunk > 0) sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_CHUNK_SIZE, &chunk);
  const std::string limit = "PRAGMA journal_size_limit=" + std::to_string(room_.log);
  sqlite3_exec(connection_.get(), limit.c_str(), nullptr, nullptr, nullptr);
  sqlite3_file* const log = fileOf(SQLITE_FCNTL_JOURNAL_POINTER);
  sqlite3_int64 size = 0;
  if (log != nullptr && log->pMethods->xFileSize(log, &size) == SQLITE_OK) kept_.log = size;
}

/// Called within a transaction, where reading the sizes needs no further lock.
void SuiteFile::measure() {
  std::int64_t pages = 0;
  std::int64_t unused = 0;
  if (room_.file == 0 || !number(pages_, pages) || !number(free_pages_, unused)) return;
  length_ = pages * suite_page_size;
  content_ = (pages - unused) * suite_page_size;
}

/// The requested room, but always at least a quarter of it beyond the content.
std::int64_t SuiteFile::neededRoom() const {
  const std::int64_t step = room_.file / 4;
  return std::max(room_.file, (content_ + 2 * step - 1) / step * step);
}

void SuiteFile::keepRoom() {
  if (room_.file == 0 || (kept_.file >= neededRoom() && kept_.log >= room_.log && content_ > 0)) return;
  const std::string error = error_;
  if (begin(durable_)) {
    measure();
    if (kept_.file < neededRoom()) growFile();
    if (kept_.log < room_.log) growLog();
    rollback();
  }
  error_ = error;
}

/// Also allocates pages that only the log has so far. Synced, because with the next change SQLite counts the
/// room as pages, and treats a shorter file as damaged.
bool SuiteFile::growFile() {
  sqlite3_file* const file = fileOf(SQLITE_FCNTL_FILE_POINTER);
  sqlite3_int64 size = 0;
  if (file == nullptr || file->pMethods->xFileSize(file, &size) != SQLITE_OK) return false;
  const std::int64_t begin =
      std::max<std::int64_t>(std::min<std::int64_t>(length_, wholePages(size)), kept_.file);
  const std::int64_t end = neededRoom();
  if (!volumeHas(sqlite3_db_filename(connection_.get(), "main"), end - begin)) return false;
  if (!occupy(file, begin, end) || file->pMethods->xSync(file, SQLITE_SYNC_NORMAL) != SQLITE_OK) return false;
  int chunk = static_cast<int>(end);
  sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_CHUNK_SIZE, &chunk);
  kept_.file = end;
  return true;
}

bool SuiteFile::growLog() {
  sqlite3_file* const log = fileOf(SQLITE_FCNTL_JOURNAL_POINTER);
  sqlite3_int64 size = 0;
  if (log == nullptr || log->pMethods->xFileSize(log, &size) != SQLITE_OK) return false;
  if (!volumeHas(sqlite3_db_filename(connection_.get(), "main"), room_.log - size)) return false;
  if (!occupy(log, wholePages(size), room_.log)) return false;
  kept_.log = room_.log;
  return true;
}

}  // namespace kelvane::foundation
