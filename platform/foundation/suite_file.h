#pragma once

// The file of a settings suite. Internal to this folder.
//
// An SQLite database in WAL mode with two tables, whose keys are the bytes of the text and whose values are
// archives (archive.h) with a checksum (row_seal.h):
//
//   keys     one row per key; its archive is empty when the value is a dictionary
//   entries  one row per entry of such a dictionary
//
// The application id is "KLVN", the user version is the version of this layout, 2, and pages have 4,096
// bytes. In version 1 values had no checksum, and a dictionary's value was null. Such a file is converted to
// version 2 when it is opened, or used as it is while that cannot be written.
//
// Room: a write on a full volume needs space that was reserved before. So the file extends beyond its
// pages, and its log beyond its frames; SQLite grows into both. The file's chunk size prevents a
// checkpoint from truncating the room.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane/value.h"
#include "platform/foundation/sqlite_handle.h"
#include "platform/foundation/suite_mark.h"
#include "platform/foundation/user_defaults.h"

namespace kelvane::foundation {

inline constexpr int suite_page_size = 4096;

/// One row to write or remove.
struct Change {
  enum Kind { put_value, put_dictionary, remove_key, put_entry, remove_entry, remove_entries };
  Kind kind;
  std::string_view entry = {};   // of put_entry and remove_entry
  const Value* value = nullptr;  // of put_value and put_entry
};

enum class SuiteState { usable, damaged, unavailable };

/// A connection to the file of a suite, open and with its layout in place. Each function that can fail gives
/// false and leaves why in `error`. Used by one thread at a time.
class SuiteFile {
 public:
  struct Opened {
    std::unique_ptr<SuiteFile> file;  // set when usable
    SuiteState state;
    std::string error;
    bool begun = false;  // there was nothing before
  };
  static Opened open(const std::string& path, const std::string& vfs, SuiteRoom room = {});
  ~SuiteFile();
  SuiteFile(const SuiteFile&) = delete;
  SuiteFile& operator=(const SuiteFile&) = delete;

  /// True when another connection has committed since the last `load`; false, with `failed()`, when that
  /// cannot be told.
  bool changedElsewhere();
  /// Reads everything, as one snapshot. Damaged rows are left out; `unreadable` gets the names of their
  /// entries, or else of their keys.
  bool load(Dictionary& contents, std::vector<std::string>& unreadable);

  /// Begins writing; `durable` says whether the commit is to be synced.
  bool begin(bool durable);
  bool apply(std::string_view key, const Change& change);
  bool commit();
  void rollback();

  /// Whether the last failure was for lack of space.
  [[nodiscard]] bool full() const { return full_; }
  /// Writes the log's content into the file, so that the log restarts.
  bool emptyLog();
  /// Reserves missing room if the volume has it.
  void keepRoom();

  /// True when the file is no longer the one at its path.
  [[nodiscard]] bool moved() const;
  [[nodiscard]] bool damaged() const { return damaged_; }
  [[nodiscard]] const std::string& error() const { return error_; }

 private:
  /// Both copies of the header of the log's index, which all connections share in memory.
  using IndexHeader = std::array<std::uint32_t, 24>;

  SuiteFile(Connection connection, const std::string& path, SuiteRoom room)
      : connection_(std::move(connection)), mark_(path + "-mark"), room_(room) {}
  bool layOut(bool& begun);
  bool recognise(bool& empty);
  bool checkPages();
  bool checkLog();
  [[nodiscard]] std::optional<LogPosition> logPosition() const;
  bool upgrade();
  bool prepare();
  bool loadKeys(Dictionary& contents, std::vector<std::string>& unreadable);
  bool loadEntries(Dictionary& contents, std::vector<std::string>& unreadable);
  [[nodiscard]] std::string rowOf(std::string_view key, const Change& change) const;
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> archiveOf(std::string_view key,
                                                                       std::string_view entry,
                                                                       std::string_view row) const;
  void findRoom();
  void measure();
  [[nodiscard]] std::int64_t neededRoom() const;
  bool growFile();
  bool growLog();
  bool number(Statement& statement, std::int64_t& number);
  sqlite3_file* fileOf(int operation) const;
  bool execute(const char* sql);
  bool single(const char* sql, std::string& text);
  bool worked(int result);
  bool spoiled(std::string why);
  [[nodiscard]] std::optional<IndexHeader> indexHeader() const;

  // Only the thread that uses the object. The connection outlives its statements.
  Connection connection_;
  const SuiteMark mark_;
  Statement begin_, commit_, rollback_;
  Statement put_key_, put_entry_, remove_key_, remove_entry_, remove_entries_;
  Statement keys_, entries_, version_, layout_, pages_, free_pages_;
  std::int64_t seen_version_ = -1;
  bool sealed_ = true;  // whether the layout is one with checksums
  SuiteRoom room_;
  SuiteRoom kept_;                          // reserved so far
  std::int64_t length_ = 0;                 // of the file's pages, bytes
  std::int64_t content_ = 0;                // of the pages in use, bytes
  std::optional<IndexHeader> seen_header_;  // when nothing had changed
  bool durable_ = true;
  bool damaged_ = false;
  bool full_ = false;
  std::string error_;
};

/// What can be seen of a database to be wrong with it before it is opened, when opening would hide it or
/// throw something away; empty when nothing is.
[[nodiscard]] std::string_view visibleDamage(const std::string& path);

/// Renames the database at `path`, with its log and the like, to `path`.damaged-<n> for the first free n and
/// gives that name; empty, with errno set, when it cannot.
[[nodiscard]] std::string setSuiteAside(const std::string& path);

}  // namespace kelvane::foundation
