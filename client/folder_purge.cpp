#include "kelvane/folder_purge.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <new>
#include <tuple>
#include <utility>
#include <vector>

#include "client/file_deletion.h"
#include "client/folder_walk.h"
#include "client/moment.h"

namespace kelvane::client {
namespace {

constexpr std::uint64_t block = 512;

std::uint64_t bytesOf(const struct statx& status) { return status.stx_blocks * block; }

bool allGoUnseen(const FolderPurgeOptions& options) {
  return options.counted_by_volume && options.linked_files && options.order == PurgeOrder::asFound &&
         options.amount == FolderPurgeOptions::everything &&
         options.modified_by == FolderPurgeOptions{}.modified_by;
}

std::uint64_t freeBytes(int folder) {
  struct statvfs status {};
  return ::fstatvfs(folder, &status) == 0 ? status.f_bfree * status.f_frsize : 0;
}

bool isTooLate(const FolderPurgeOptions& options) {
  return options.deadline != FolderPurgeOptions().deadline && present() >= options.deadline;
}

bool mayGo(const struct statx& status, const FolderPurgeOptions& options) {
  return status.stx_mtime.tv_sec <= options.modified_by && (status.stx_nlink == 1 || options.linked_files);
}

/// Deletes, and keeps the account. Files may be deleted by several threads at once.
class Purger {
 public:
  Purger(const FolderPurgeOptions& options, const Cancellation& cancellation)
      : options_(options), cancellation_(cancellation) {}

  [[nodiscard]] bool done() {
    const std::lock_guard lock(mutex_);
    if (purge_.freed >= options_.amount) {
      purge_.end = PurgeEnd::amountFreed;
    } else if (cancellation_.isCancelled()) {
      purge_.end = PurgeEnd::cancelled;
    } else if (isTooLate(options_)) {
      purge_.end = PurgeEnd::tooLate;
    }
    return purge_.end != PurgeEnd::nothingLeft;
  }
  void note(int error) {
    const std::lock_guard lock(mutex_);
    if (purge_.failures++ == 0) purge_.error = error;
  }
  void fail(int error) {
    note(error);
    purge_.end = PurgeEnd::failed;
  }
  void deleteSeen(int folder, const char* name, const struct statx& status) {
    const std::uint64_t bytes = status.stx_nlink == 1 ? bytesOf(status) : 0;
    if (!begin(bytes)) return;
    end(bytes, bytes >= FolderPurge::asked_from ? deleteFileAsking(folder, name, bytes)
                                                : deleteFile(folder, name, bytes));
  }
  void deleteUnseen(int folder, const char* name) { end(0, deleteFile(folder, name, 0)); }
  void noteFreed(std::uint64_t before, std::uint64_t after) {
    purge_.freed = after > before ? after - before : 0;
  }
  void deleteFolder(int parent, const std::string& name) {
    if (!options_.empty_folders) return;
    if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0) {
      ++purge_.folders;
    } else if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOENT && errno != ENOTDIR) {
      note(errno);
    }
  }
  [[nodiscard]] const FolderPurgeOptions& options() const { return options_; }
  [[nodiscard]] const FolderPurge& purge() const { return purge_; }

 private:
  /// Whether these bytes are wanted. When those that others are about to free may already be enough, that is
  /// waited for, so that no file goes in vain.
  bool begin(std::uint64_t bytes) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return under_way_ == 0 || purge_.freed + under_way_ < options_.amount; });
    if (purge_.freed >= options_.amount || cancellation_.isCancelled()) return false;
    under_way_ += bytes;
    return true;
  }
  void end(std::uint64_t bytes, const FileDeletion& deleted) {
    {
      const std::lock_guard lock(mutex_);
      under_way_ -= bytes;
      purge_.files += deleted.is ? 1 : 0;
      purge_.freed += deleted.freed;
      purge_.held += deleted.held;
      if (deleted.error != 0 && purge_.failures++ == 0) purge_.error = deleted.error;
    }
    changed_.notify_all();
  }

  const FolderPurgeOptions& options_;
  const Cancellation& cancellation_;
  std::mutex mutex_;  // guards all below while files are visited
  std::condition_variable changed_;
  std::uint64_t under_way_ = 0;  // bytes of files that are being deleted
  FolderPurge purge_;
};

class PurgeAsFound final : public FolderWalk::Visitor {
 public:
  enum class Files { seen, unseen, stay };
  PurgeAsFound(Purger& purger, Files files) : purger_(purger), files_(files) {}
  [[nodiscard]] bool done() override { return purger_.done(); }
  void file(int folder, const char* name, const struct statx& status) override {
    if (files_ == Files::unseen) {
      purger_.deleteUnseen(folder, name);
    } else if (files_ == Files::seen && mayGo(status, purger_.options())) {
      purger_.deleteSeen(folder, name, status);
    }
  }
  [[nodiscard]] bool entered(int /*parent*/, int /*folder*/, const std::string& /*name*/) override {
    return true;
  }
  void left(int parent, const std::string& name) override {
    if (parent >= 0) purger_.deleteFolder(parent, name);
  }
  void failed(int error) override {
    if (files_ != Files::stay) purger_.note(error);  // else it was noted before
  }

 private:
  Purger& purger_;
  const Files files_;
};

void purgeAsFound(Purger& purger, int root, PurgeAsFound::Files files) {
  PurgeAsFound visitor(purger, files);
  // Two that delete names of one file at the same time could both take the other's for the last.
  const bool alone = files == PurgeAsFound::Files::stay ||
                     (files == PurgeAsFound::Files::seen && purger.options().linked_files);
  FolderWalk walk(visitor, alone ? FolderWalk::Threads::one : FolderWalk::Threads::two,
                  files == PurgeAsFound::Files::seen);
  if (!walk.run(root)) purger.fail(errno);
}

void purgeUnseen(Purger& purger, int root) {
  const std::uint64_t before = freeBytes(root);
  purgeAsFound(purger, root, PurgeAsFound::Files::unseen);
  purger.noteFreed(before, freeBytes(root));
}

struct Folder {
  std::size_t parent;
  std::string name;
};

struct File {
  statx_timestamp modified;
  std::uint64_t number;
  std::size_t folder;
  std::string name;
};

/// Remembers what may go, and where.
class FilesByAge final : public FolderWalk::Visitor {
 public:
  explicit FilesByAge(Purger& purger) : purger_(purger) {}
  [[nodiscard]] bool done() override { return purger_.done(); }
  void file(int /*folder*/, const char* name, const struct statx& status) override {
    if (mayGo(status, purger_.options())) files.push_back({status.stx_mtime, status.stx_ino, current_, name});
  }
  [[nodiscard]] bool entered(int /*parent*/, int /*folder*/, const std::string& name) override {
    folders.push_back({current_, name});
    current_ = folders.size() - 1;
    return true;
  }
  void left(int /*parent*/, const std::string& /*name*/) override { current_ = folders[current_].parent; }
  void failed(int error) override { purger_.note(error); }

  void sort() {
    std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
      return std::tie(a.modified.tv_sec, a.modified.tv_nsec, a.folder, a.name) <
             std::tie(b.modified.tv_sec, b.modified.tv_nsec, b.folder, b.name);
    });
  }

  std::vector<Folder> folders{{0, ""}};  // parents first; the first is the whole
  std::vector<File> files;

 private:
  Purger& purger_;
  std::size_t current_ = 0;
};

/// Opens folders that were seen, once more, and keeps some open.
class SeenFolders {
 public:
  SeenFolders(int root, const std::vector<Folder>& folders) : root_(root), folders_(folders) {}

  /// The folder that has this place now; -1 when there is none.
  int open(std::size_t folder) {
    Kept& kept = kept_[folder % kept_.size()];
    if (!kept.descriptor || kept.folder != folder) kept = {folder, find(folder)};
    return kept.descriptor.get();
  }

 private:
  struct Kept {
    std::size_t folder = 0;
    FileDescriptor descriptor;
  };
  static constexpr std::size_t longest_path = 4000;  // below PATH_MAX

  [[nodiscard]] FileDescriptor find(std::size_t folder) const {
    std::vector<const std::string*> names;
    for (; folder != 0; folder = folders_[folder].parent) names.push_back(&folders_[folder].name);
    FileDescriptor found = openBelow(root_, ".");
    std::string path;
    while (found && !names.empty()) {
      path = *names.back();
      for (names.pop_back(); !names.empty() && path.size() + names.back()->size() < longest_path;
           names.pop_back())
        path += '/' + *names.back();
      found = openBelow(found.get(), path.c_str());
    }
    return found;
  }

  const int root_;
  const std::vector<Folder>& folders_;
  std::array<Kept, 64> kept_;
};

void deleteAsSeen(Purger& purger, int folder, const File& file) {
  struct statx now {};
  if (folder < 0 || ::statx(folder, file.name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &now) != 0) {
    return;
  }
  const bool same = S_ISREG(now.stx_mode) && now.stx_ino == file.number &&
                    now.stx_mtime.tv_sec == file.modified.tv_sec &&
                    now.stx_mtime.tv_nsec == file.modified.tv_nsec;
  if (same && mayGo(now, purger.options())) purger.deleteSeen(folder, file.name.c_str(), now);
}

/// What it keeps open is closed on return: a folder that is deleted and still open makes deleting those above
/// it slow, each in proportion to the depth.
void deleteInOrder(Purger& purger, int root, const FilesByAge& found) {
  SeenFolders folders(root, found.folders);
  for (const File& file : found.files) {
    if (purger.done()) return;
    deleteAsSeen(purger, folders.open(file.folder), file);
  }
}

void purgeOldestFirst(Purger& purger, int root) {
  FilesByAge found(purger);
  if (!FolderWalk(found).run(root)) return purger.fail(errno);
  found.sort();
  deleteInOrder(purger, root, found);
  if (purger.options().empty_folders && !purger.done()) purgeAsFound(purger, root, PurgeAsFound::Files::stay);
}

/// Adds up and touches nothing.
class Sum final : public FolderWalk::Visitor {
 public:
  Sum(const FolderPurgeOptions& options, const Cancellation& cancellation)
      : options_(options), cancellation_(cancellation) {}
  [[nodiscard]] bool done() override { return cancellation_.isCancelled() || isTooLate(options_); }
  void file(int /*folder*/, const char* /*name*/, const struct statx& status) override {
    if (status.stx_nlink == 1 && mayGo(status, options_)) bytes += bytesOf(status);
  }
  [[nodiscard]] bool entered(int /*parent*/, int /*folder*/, const std::string& /*name*/) override {
    return true;
  }
  void left(int /*parent*/, const std::string& /*name*/) override {}
  void failed(int /*error*/) override {}

  std::uint64_t bytes = 0;

 private:
  const FolderPurgeOptions& options_;
  const Cancellation& cancellation_;
};

}  // namespace

FolderPurge purgeFolder(int folder, const FolderPurgeOptions& options,
                        const Cancellation& cancellation) noexcept {
  Purger purger(options, cancellation);
  try {
    if (purger.done()) return purger.purge();
    if (options.order == PurgeOrder::oldestFirst) {
      purgeOldestFirst(purger, folder);
    } else if (allGoUnseen(options)) {
      purgeUnseen(purger, folder);
    } else {
      purgeAsFound(purger, folder, PurgeAsFound::Files::seen);
    }
  } catch (const std::bad_alloc&) {
    purger.fail(ENOMEM);
  }
  return purger.purge();
}

FolderPurge purgeFolder(const std::string& path, const FolderPurgeOptions& options,
                        const Cancellation& cancellation) noexcept {
  const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (folder) return purgeFolder(folder.get(), options, cancellation);
  FolderPurge purge;
  purge.end = PurgeEnd::failed;
  purge.failures = 1;
  purge.error = errno;
  return purge;
}

std::uint64_t purgeableBytes(int folder, const FolderPurgeOptions& options,
                             const Cancellation& cancellation) noexcept {
  try {
    Sum sum(options, cancellation);
    return FolderWalk(sum).run(folder) ? sum.bytes : 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

std::uint64_t purgeableBytes(const std::string& path, const FolderPurgeOptions& options,
                             const Cancellation& cancellation) noexcept {
  const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return folder ? purgeableBytes(folder.get(), options, cancellation) : 0;
}

}  // namespace kelvane::client
