#include "tests/foundation/power_loss_vfs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kelvane::test {
namespace {

constexpr std::size_t sector = 512;

sqlite3_vfs* realVFS() { return sqlite3_vfs_find(nullptr); }

void put(std::string& content, std::size_t at, std::string_view bytes) {
  content.resize(std::max(content.size(), at + bytes.size()));
  content.replace(at, bytes.size(), bytes);
}

}  // namespace

PowerLossVFS::PowerLossVFS(RandomChoices& choices) : choices_(choices), vfs_(*realVFS()) {
  current() = this;
  vfs_.zName = name;
  vfs_.xOpen = open;
  vfs_.xDelete = remove;
  if (sqlite3_vfs_register(&vfs_, 0) != SQLITE_OK) throw std::runtime_error("the VFS cannot be registered");
}

PowerLossVFS::~PowerLossVFS() {
  sqlite3_vfs_unregister(&vfs_);
  current() = nullptr;
}

PowerLossVFS*& PowerLossVFS::current() {
  static PowerLossVFS* vfs = nullptr;
  return vfs;
}

bool PowerLossVFS::powerFails() {
  if (!has_failed_ && operations_left_-- == 0) has_failed_ = true;
  return has_failed_;
}

void PowerLossVFS::enter(const std::string& path, std::shared_ptr<File> file) {
  seen_[path] = file;
  unsynced_.emplace_back(path, std::move(file));
}

void PowerLossVFS::syncDirectory() {
  for (auto& [path, file] : unsynced_) synced_[path] = std::move(file);
  unsynced_.clear();
}

int PowerLossVFS::open(sqlite3_vfs*, const char* path, sqlite3_file* file, int flags, int* out_flags) {
  PowerLossVFS& self = *current();
  constexpr int kept = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL;
  if ((flags & kept) == 0) return realVFS()->xOpen(realVFS(), path, file, flags, out_flags);
  const bool creates = (flags & SQLITE_OPEN_CREATE) != 0;
  file->pMethods = nullptr;
  if (self.has_failed_) return SQLITE_CANTOPEN;
  if (self.seen_[path] == nullptr && creates) {
    self.enter(path, std::make_shared<File>());
    if (self.powerFails()) return SQLITE_CANTOPEN;
  }
  const int result = realVFS()->xOpen(realVFS(), path, file, flags, out_flags);
  if (result != SQLITE_OK) return result;
  const bool is_database = (flags & SQLITE_OPEN_MAIN_DB) != 0;
  Handle& handle = self.handles_[file];
  handle = {file->pMethods, *file->pMethods, self.seen_[path], creates && !is_database};
  handle.methods.iVersion = 2;  // without the reading of mapped files
  handle.methods.xClose = close;
  handle.methods.xRead = read;
  handle.methods.xFileSize = size;
  handle.methods.xWrite = write;
  handle.methods.xTruncate = truncate;
  handle.methods.xSync = sync;
  file->pMethods = &handle.methods;
  return SQLITE_OK;
}

int PowerLossVFS::remove(sqlite3_vfs*, const char* path, int syncs_directory) {
  PowerLossVFS& self = *current();
  if (self.has_failed_) return SQLITE_IOERR_DELETE;
  if (self.seen_[path] != nullptr) self.enter(path, nullptr);
  if (self.powerFails()) return SQLITE_IOERR_DELETE;
  if (syncs_directory != 0) self.syncDirectory();
  return realVFS()->xDelete(realVFS(), path, 0);
}

int PowerLossVFS::close(sqlite3_file* file) {
  const sqlite3_io_methods* const real = handleOf(file).real;
  current()->handles_.erase(file);
  return real->xClose(file);
}

int PowerLossVFS::read(sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
  return current()->has_failed_ ? SQLITE_IOERR_READ : handleOf(file).real->xRead(file, bytes, count, at);
}

int PowerLossVFS::size(sqlite3_file* file, sqlite3_int64* bytes) {
  return current()->has_failed_ ? SQLITE_IOERR_FSTAT : handleOf(file).real->xFileSize(file, bytes);
}

int PowerLossVFS::write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
  if (current()->has_failed_) return SQLITE_IOERR_WRITE;
  const Handle& handle = handleOf(file);
  handle.file->unsynced.push_back(
      {Change::write, static_cast<std::size_t>(at),
       std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(count))});
  return current()->powerFails() ? SQLITE_IOERR_WRITE : handle.real->xWrite(file, bytes, count, at);
}

/// The default VFS grows a file in whole chunks, so the size is that of its file.
int PowerLossVFS::truncate(sqlite3_file* file, sqlite3_int64 size) {
  if (current()->has_failed_ || current()->powerFails()) return SQLITE_IOERR_TRUNCATE;
  const Handle& handle = handleOf(file);
  const int result = handle.real->xTruncate(file, size);
  if (result != SQLITE_OK || handle.real->xFileSize(file, &size) != SQLITE_OK) return SQLITE_IOERR_TRUNCATE;
  handle.file->unsynced.push_back({Change::truncate, static_cast<std::size_t>(size), {}});
  return SQLITE_OK;
}

int PowerLossVFS::sync(sqlite3_file* file, int) {
  if (current()->powerFails()) return SQLITE_IOERR_FSYNC;
  Handle& handle = handleOf(file);
  for (const Change& change : std::exchange(handle.file->unsynced, {})) {
    if (change.kind == Change::truncate) {
      handle.file->synced.resize(change.at);
    } else {
      put(handle.file->synced, change.at, change.bytes);
    }
  }
  if (std::exchange(handle.syncs_directory, false)) current()->syncDirectory();
  return SQLITE_OK;
}

void PowerLossVFS::losePower() {
  unsynced_.resize(choices_.below(unsynced_.size() + 1));
  syncDirectory();
  for (const auto& entry : seen_) {
    for (const char* suffix : {"", "-shm"}) std::filesystem::remove(entry.first + suffix);
  }
  for (auto& [path, file] : synced_) {
    if (file == nullptr) continue;
    file = std::make_shared<File>(File{salvaged(*file), {}});
    std::ofstream(path, std::ios::binary) << file->synced;
  }
  seen_ = synced_;
  has_failed_ = false;
}

/// What of a file is on the disk after the power failed: much or little of what was not synced.
std::string PowerLossVFS::salvaged(const File& file) {
  std::string content = file.synced;
  const std::size_t of_four = choices_.below(5);
  for (const Change& change : file.unsynced) {
    if (choices_.below(4) < of_four) salvage(content, change);
  }
  return content;
}

void PowerLossVFS::salvage(std::string& content, const Change& change) {
  if (change.kind == Change::truncate) return content.resize(change.at);
  const std::size_t end = change.at + change.bytes.size();
  if (choices_.oneIn(8)) content.resize(std::max(content.size(), end));  // its length, before its sectors
  const bool whole = !choices_.oneIn(4);
  for (std::size_t from = change.at; from < end;) {
    const std::size_t to = std::min(end, (from / sector + 1) * sector);
    const std::string_view piece = std::string_view(change.bytes).substr(from - change.at, to - from);
    if (whole || choices_.oneIn(2)) put(content, from, piece);
    from = to;
  }
}

}  // namespace kelvane::test
