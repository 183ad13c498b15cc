#pragma once

// Giving space back from a folder of files that can be made again.
//
//   const auto purged = purgeFolder(folder, {.amount = request.amount}, cancellation);
//   return purged.freed;
//
// Safety. Whoever can write in the folder need not be trusted. Names are looked up one by one from the
// folder's own descriptor; no link is followed and no mount is entered, bind mounts included; so what is
// deleted was in the folder when its own folder was opened. A folder that is moved away while its files are
// being deleted is emptied all the same, wherever it is then; those in it that were not yet entered stay as
// they are once the walk cannot find its way back. Only regular files go, and folders when that is
// asked for. Links, sockets, pipes and devices stay. What vanishes, or cannot be read or deleted, is passed
// over.
//
// Bytes are those that the file system gives back: the blocks that a file has, not its length, so a sparse
// file counts what it has. A file with several names gives back nothing before its last name goes, and
// counts then. A file that somebody has open gives its bytes back when he lets go: it counts as `held`. That
// is asked of the kernel for files from `asked_from` bytes on, of the folder's own user or with CAP_LEASE,
// where the file system can tell (one over a network cannot); others count as freed. Asking costs as much as
// deleting a small file does, which is why the small ones are not asked about.
//
// Threads. Any; each call works on its own, and two on the same folder do not count one file twice. A folder
// of many files is emptied by a second thread as well, which has the caller's rights, takes no signals and
// has ended on return; not so with oldestFirst, nor with linked_files unless counted by the volume. Takes up
// to 40 descriptors (100 for oldestFirst), however deep the folders are. Nothing is thrown. Needs Linux 5.6.

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

#include "kelvane/cancellation.h"
#include "kelvane/export.h"

namespace kelvane::client {

enum class PurgeOrder {
  /// One folder after the other, its files first, as the file system lists them: in no order that means
  /// anything. The fastest, and takes memory for the names of folders only.
  asFound,
  /// By their last modification. Looks at everything first and keeps some 60 bytes and the name of each file
  /// meanwhile. A file that was modified or replaced since is passed over.
  oldestFirst,
};

struct FolderPurgeOptions {
  static constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

  /// Bytes. It stops with the file that brings `freed` there.
  std::uint64_t amount = everything;
  PurgeOrder order = PurgeOrder::asFound;
  /// Seconds since 1970: files that were modified later stay.
  std::int64_t modified_by = std::numeric_limits<std::int64_t>::max();
  /// Whether files with several names go as well. Left alone unless told: their other names may be elsewhere.
  bool linked_files = false;
  /// Whether `freed` may be taken from the volume's free space, before and after. Files are then not looked
  /// at before they go, which is faster; but what others free or take meanwhile counts as well, and some file
  /// systems free later than they say. For all files whatever their age, amount and names, asFound; else
  /// without effect.
  bool counted_by_volume = false;
  /// Whether folders in the folder go that it finds, or leaves, empty. The folder itself always stays.
  bool empty_folders = false;
  /// The moment to return, with what was done until then, such as Request::answer_by. Checked before each
  /// file.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

enum class PurgeEnd {
  amountFreed,
  nothingLeft,  // that may go and can be deleted
  cancelled,
  tooLate,  // the deadline came first
  failed,   // the folder cannot be opened or read, or memory ran out
};

struct FolderPurge {
  static constexpr std::uint64_t asked_from = std::uint64_t{64} << 10;

  PurgeEnd end = PurgeEnd::nothingLeft;
  std::uint64_t freed = 0;  // bytes that are free now
  std::uint64_t held = 0;   // bytes that will be free when those who have the deleted files open let go
  std::uint64_t files = 0;  // deleted
  std::uint64_t folders = 0;
  std::uint64_t failures = 0;  // files and folders that could not be read or deleted
  int error = 0;               // errno of the first of them
};

/// `folder` is a descriptor of a directory, of any kind and access; it stays open and is not changed. The
/// path may itself be a link. Cancelling is looked for before each file.
[[nodiscard]] KELVANE_EXPORT FolderPurge purgeFolder(int folder, const FolderPurgeOptions& options,
                                                     const Cancellation& cancellation) noexcept;
[[nodiscard]] KELVANE_EXPORT FolderPurge purgeFolder(const std::string& path,
                                                     const FolderPurgeOptions& options,
                                                     const Cancellation& cancellation) noexcept;

/// The bytes of files that purging with these options could free, their amount and order aside. Files with
/// several names count nothing. 0 when the folder cannot be read; when cancelled, or once the deadline has
/// come, what was counted until then.
[[nodiscard]] KELVANE_EXPORT std::uint64_t purgeableBytes(int folder, const FolderPurgeOptions& options,
                                                          const Cancellation& cancellation) noexcept;
[[nodiscard]] KELVANE_EXPORT std::uint64_t purgeableBytes(const std::string& path,
                                                          const FolderPurgeOptions& options,
                                                          const Cancellation& cancellation) noexcept;

}  // namespace kelvane::client
