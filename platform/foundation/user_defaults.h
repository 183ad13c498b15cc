#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/value.h"

namespace kelvane {

namespace foundation {
class SuiteFile;
struct Change;
}  // namespace foundation

/// Bytes of the volume that a suite reserves, so that it can write when the volume is full.
struct SuiteRoom {
  std::int64_t file = 0;  // including its content; always at least a quarter of this is free
  std::int64_t log = 0;
};

struct UserDefaultsOptions {
  /// Entries of stored dictionaries, by their own key, that can be made again: a change of these alone is not
  /// synced, so the last ones may be lost with the power (never with the process, and never in part).
  std::set<std::string, std::less<>> recreatable;
  /// The SQLite VFS to open files with, by its registered name; empty for the default one. Setting a damaged
  /// file aside goes to the file system itself.
  std::string vfs;
  SuiteRoom room = {};
};

/// A named suite of settings: property-list values under keys, kept in one file.
///
/// A value is on the disk when `setObject` returns, but for re-creatable entries and when writing fails: then
/// the value is held in memory, and each later `setObject` of its key and each `synchronize` tries again.
/// Reading is from memory. A value that is a dictionary is stored an entry to a row, so that writing it again
/// costs in proportion to what changed in it.
///
/// A file that is damaged or another program's is set aside under the name `<suite>.db.damaged-<n>` with what
/// belongs to it, and a new one begun: when the suite is opened, and later as well, with the values held
/// then.
///
/// Used by one thread at a time (by the work items of one serial queue); throws nothing. Several objects, in
/// one process or several, may have one suite open.
class UserDefaults {
 public:
  /// Opens `<directory>/<name>.db`, creating the file but not the directory. Null when that cannot be done,
  /// with the reason in `reason` when it is not null. Waits up to 2 s for another that is writing.
  [[nodiscard]] static std::shared_ptr<UserDefaults> initWithSuiteName(std::string_view name,
                                                                       const std::string& directory,
                                                                       UserDefaultsOptions options = {},
                                                                       std::string* reason = nullptr);
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  ~UserDefaults();

  /// The value last set or taken in, or nothing.
  [[nodiscard]] Value objectForKey(std::string_view key) const;

  /// Stores `value` in place of what is under `key`, writing only what differs; nothing removes the key.
  /// Takes in what others stored before. A value that nests deeper than archives may is not taken at all.
  void setObject(const Value& value, std::string_view key);

  /// Stores `value` in place of one entry of the dictionary under `key`; nothing removes the entry. Anything
  /// there that is not a dictionary is replaced by one. The cost does not depend on the number of entries.
  /// False when it could not be stored: then nothing has changed, and `lastError` says why.
  [[nodiscard]] bool setEntry(const Value& value, std::string_view entry, std::string_view key);

  /// Reserves what is missing of the room that the options ask for, if the volume has it.
  /// Each stored change does so as well.
  void keepRoom();

  /// How much memory the value under `key` takes (footprint.h).
  /// Computed on the first call, then cached.
  [[nodiscard]] std::size_t footprintOf(std::string_view key);

  /// Takes in what others stored and stores what could not be stored before; true when both succeeded.
  bool synchronize();

  /// Why the last `setObject` or `synchronize` failed; empty when it did not.
  [[nodiscard]] const std::string& lastError() const { return last_error_; }

  /// What happened to the file that somebody should know of (it was set aside, a row could not be read), each
  /// thing once.
  [[nodiscard]] std::vector<std::string> takeNotices() { return std::exchange(notices_, {}); }

 private:
  UserDefaults(std::string path, UserDefaultsOptions options);
  bool ready();
  bool open();
  bool setAside(const std::string& why);
  bool takeInChanges();
  void overlay(Dictionary fresh);
  using Difference = std::function<std::vector<foundation::Change>()>;
  bool write(std::string_view key, const Value& value);
  bool write(std::string_view key, const Difference& difference);
  bool tryWriting(std::string_view key, const Difference& difference);
  bool storeEntry(const Value& value, std::string_view entry, std::string_view key);
  void holdEntry(const Value& value, std::string_view entry, std::string_view key);
  bool writeUnsaved();
  bool failed();
  [[nodiscard]] std::vector<foundation::Change> difference(std::string_view key, const Value& value) const;
  [[nodiscard]] std::vector<foundation::Change> entryChange(const Value& value, std::string_view entry,
                                                            std::string_view key) const;
  [[nodiscard]] bool mustBeSynced(const std::vector<foundation::Change>& changes) const;

  const std::string path_;
  const UserDefaultsOptions options_;
  // Only the queue that uses the object.
  std::unique_ptr<foundation::SuiteFile> file_;  // null while the file cannot be opened
  Dictionary held_;
  std::map<std::string, std::size_t, std::less<>> footprints_;  // of values in `held_`, if computed
  std::set<std::string, std::less<>> unsaved_;  // keys whose value in `held_` may not be what the file has
  std::string last_error_;
  std::vector<std::string> notices_;
};

}  // namespace kelvane
