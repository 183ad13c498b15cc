#include "platform/foundation/suite_file.h"

#include <endian.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/foundation/archive.h"
#include "platform/foundation/row_seal.h"

namespace kelvane::foundation {
namespace {

constexpr const char* application_id = "1263294030";  // "KLVN"
constexpr const char* layout_version = "2";
constexpr const char* layout_without_checksums = "1";
constexpr int busy_milliseconds = 2000;

// Exactly as they are stored in the file, which is compared with them.
constexpr const char* entries_table =
    "CREATE TABLE entries(key BLOB NOT NULL,entry BLOB NOT NULL,value BLOB NOT NULL,PRIMARY KEY(key,entry))"
    "WITHOUT ROWID";
constexpr const char* keys_table = "CREATE TABLE keys(key BLOB PRIMARY KEY NOT NULL,value BLOB)WITHOUT ROWID";

/// The one place where a database is opened.
int openConnection(const std::string& path, const std::string& vfs, Connection& connection) {
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      vfs.empty() ? nullptr : vfs.c_str());
  connection.reset(opened);
  if (result != SQLITE_OK) return result;
  sqlite3_busy_timeout(opened, busy_milliseconds);
  // Closing must not touch a file before it is known to be ours and sound.
  sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return SQLITE_OK;
}

Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string_view asText(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

std::string_view asText(sqlite3_value* value) {
  const void* const start = sqlite3_value_blob(value);
  const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
  return start == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(start), size);
}

/// SQL: sealed(key, entry, value) gives the value in the layout with checksums. A value that is not an
/// archive stays as it is, and so stays unreadable.
void sealed(sqlite3_context* context, int /*count*/, sqlite3_value** arguments) {
  const std::string_view archive = asText(arguments[2]);
  const bool is_dictionary = sqlite3_value_type(arguments[2]) == SQLITE_NULL;
  if (!is_dictionary && unarchivedValue(asBytes(archive)).isNothing()) {
    sqlite3_result_value(context, arguments[2]);
    return;
  }
  const std::string row = sealedRow(asText(arguments[0]), asText(arguments[1]), asBytes(archive));
  sqlite3_result_blob64(context, row.data(), row.size(), SQLITE_TRANSIENT);
}

}  // namespace

SuiteFile::Opened SuiteFile::open(const std::string& path, const std::string& vfs, SuiteRoom room) {
  Connection connection;
  const int result = openConnection(path, vfs, connection);
  if (result != SQLITE_OK) return {nullptr, SuiteState::unavailable, sqlite3_errstr(result)};
  std::unique_ptr<SuiteFile> file(new SuiteFile(std::move(connection), path, room));
  bool begun = false;
  if (!file->layOut(begun) || !file->prepare()) {
    return {nullptr, file->damaged_ ? SuiteState::damaged : SuiteState::unavailable, file->error_};
  }
  sqlite3_db_config(file->connection_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  return {std::move(file), SuiteState::usable, {}, begun};
}

/// A file that is no longer sound, or no longer at its path where the log may be another's, is left as it is.
SuiteFile::~SuiteFile() {
  if (damaged_ || moved()) sqlite3_db_config(connection_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

bool SuiteFile::layOut(bool& begun) {
  const std::string settings = fmt::format("PRAGMA cell_size_check=ON;PRAGMA page_size={}", suite_page_size);
  if (!execute(settings.c_str()) || !recognise(begun)) return false;
  if (sqlite3_db_readonly(connection_.get(), "main") != 0) {
    error_ = "it cannot be written";
    return false;
  }
  if (begun) {
    const char* const path = sqlite3_db_filename(connection_.get(), "main");
    if (path != nullptr) ::chmod(path, S_IRUSR | S_IWUSR);  // the log takes it over
  }
  std::string mode;
  if (!execute("PRAGMA synchronous=FULL") || !single("PRAGMA journal_mode=WAL", mode)) return false;
  if (mode != "wal") {
    error_ = "its file system does not support a write-ahead log";
    return false;
  }
  findRoom();
  if (!begun) return checkLog() && checkPages() && emptyLog() && upgrade();
  // Another process may be doing the same; whoever comes second finds it done.
  if (!execute("BEGIN IMMEDIATE") || !recognise(begun)) return false;
  mark_.clear();
  const std::string create = fmt::format("{};{};PRAGMA application_id={};PRAGMA user_version={}", keys_table,
                                         entries_table, application_id, layout_version);
  return (!begun || execute(create.c_str())) && execute("COMMIT");
}

/// Whether the file is empty or ours; anything else counts as damaged.
bool SuiteFile::recognise(bool& empty) {
  std::string id;
  std::string version;
  std::string layout;
  if (!single("PRAGMA application_id", id) || !single("PRAGMA user_version", version) ||
      !single("SELECT coalesce(group_concat(sql,';'),'')FROM(SELECT sql FROM sqlite_master ORDER BY name)",
              layout)) {
    return false;
  }
  empty = id == "0" && version == "0" && layout.empty();
  if (empty) return true;
  if (id != application_id) return spoiled("it belongs to another program");
  if (version != layout_version && version != layout_without_checksums)
    return spoiled("it has the unknown version " + version);
  if (layout != fmt::format("{};{}", entries_table, keys_table))
    return spoiled("its tables are not the settings'");
  return true;
}

bool SuiteFile::checkPages() {
  std::string found;
  if (!single("PRAGMA quick_check(1)", found)) return false;
  return found == "ok" || spoiled(found);
}

/// When the file cannot be written it stays as it is, and is converted when it is next opened.
bool SuiteFile::upgrade() {
  constexpr int arguments = 3;
  sqlite3_create_function(connection_.get(), "sealed", arguments, SQLITE_UTF8 | SQLITE_DIRECTONLY, nullptr,
                          sealed, nullptr, nullptr);
  const std::string update = fmt::format(
      "UPDATE keys SET value=sealed(key,x'',value);UPDATE entries SET value=sealed(key,entry,value);"
      "PRAGMA user_version={}",
      layout_version);
  std::string version;
  if (!single("PRAGMA user_version", version) || version == layout_version) return !damaged_;
  // Another process may have converted it in the meantime.
  if (!execute("BEGIN IMMEDIATE") || !single("PRAGMA user_version", version) || version == layout_version ||
      !execute(update.c_str()) || !execute("COMMIT")) {
    rollback();
  }
  return !damaged_;
}

/// A power loss may leave a torn frame behind the log's end. The next one written there continues the log,
/// and when that one is lost in part as well, the two parts could pass for a frame that was written whole. So
/// what is in the log goes into the file, and the next frame begins a new log. Where that cannot be done now,
/// as on a full volume or beside another process, the log serves on as it is.
bool SuiteFile::emptyLog() {
  const int how = room_.log > 0 ? SQLITE_CHECKPOINT_RESTART : SQLITE_CHECKPOINT_TRUNCATE;
  const int result = sqlite3_wal_checkpoint_v2(connection_.get(), nullptr, how, nullptr, nullptr);
  if (result == SQLITE_OK) mark_.clear();  // the log is no longer needed
  return (result & 0xff) != SQLITE_CORRUPT || worked(result);
}

bool SuiteFile::prepare() {
  const std::array<std::pair<Statement*, const char*>, 14> statements = {{
      {&begin_, "BEGIN IMMEDIATE"},
      {&commit_, "COMMIT"},
      {&rollback_, "ROLLBACK"},
      {&put_key_, "INSERT INTO keys VALUES(?1,?2)ON CONFLICT(key)DO UPDATE SET value=?2"},
      {&put_entry_, "INSERT INTO entries VALUES(?1,?2,?3)ON CONFLICT(key,entry)DO UPDATE SET value=?3"},
      {&remove_key_, "DELETE FROM keys WHERE key=?1"},
      {&remove_entry_, "DELETE FROM entries WHERE key=?1 AND entry=?2"},
      {&remove_entries_, "DELETE FROM entries WHERE key=?1"},
      {&keys_, "SELECT key,value FROM keys"},
      {&entries_, "SELECT key,entry,value FROM entries"},
      {&version_, "PRAGMA data_version"},
      {&layout_, "PRAGMA user_version"},
      {&pages_, "PRAGMA page_count"},
      {&free_pages_, "PRAGMA freelist_count"},
  }};
  for (const auto& [statement, sql] : statements) {
    *statement = Statement(connection_, sql);
    const int result = sqlite3_errcode(connection_.get());
    if (result != SQLITE_OK) return worked(result);
  }
  return true;
}

/// Nothing where the index is not in shared memory. SQLite hands it out in pages of this size, and changes
/// one copy of the header after the other with every commit (https://www.sqlite.org/walformat.html, 2.1).
std::optional<SuiteFile::IndexHeader> SuiteFile::indexHeader() const {
  constexpr int index_page_size = 32768;
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr || file->pMethods->iVersion < 2) {
    return std::nullopt;
  }
  volatile void* page = nullptr;
  if (file->pMethods->xShmMap(file, 0, index_page_size, 0, &page) != SQLITE_OK || page == nullptr)
    return std::nullopt;
  IndexHeader header;
  std::copy_n(static_cast<volatile const std::uint32_t*>(page), header.size(), header.begin());
  return header;
}

/// Nothing while another process is changing the header.
std::optional<LogPosition> SuiteFile::logPosition() const {
  const std::optional<IndexHeader> header = indexHeader();
  constexpr std::size_t copy = 12;  // words
  if (!header || !std::equal(header->begin(), header->begin() + copy, header->begin() + copy))
    return std::nullopt;
  constexpr std::size_t frames = 4;
  constexpr std::size_t salts = 8;  // as they are in the file: the most significant byte first
  return LogPosition{be32toh((*header)[salts]), (*header)[salts + 1], (*header)[frames]};
}

/// Whether the log has all that was once synced.
bool SuiteFile::checkLog() {
  struct stat log {};
  const std::string path = std::string(sqlite3_db_filename(connection_.get(), "main")) + "-wal";
  if (::stat(path.c_str(), &log) != 0 || log.st_size == 0) {
    mark_.clear();
    return true;
  }
  const std::optional<LogPosition> position = logPosition();
  if (!position || !mark_.isBeyond(*position)) return true;
  return spoiled("its log has lost what was written last");
}

/// Querying SQLite takes locks, so that is done only when a commit has happened since the last time. The
/// header is read before the query: a commit in between is noticed next time.
bool SuiteFile::changedElsewhere() {
  error_.clear();
  const std::optional<IndexHeader> header = indexHeader();
  if (header && header == seen_header_) return false;
  seen_header_.reset();
  std::int64_t version = 0;
  if (!number(version_, version)) return false;
  if (version != seen_version_) return true;
  seen_header_ = header;
  return false;
}

bool SuiteFile::load(Dictionary& contents, std::vector<std::string>& unreadable) {
  error_.clear();
  const bool alone = sqlite3_get_autocommit(connection_.get()) != 0;
  if (alone && !execute("BEGIN")) return false;
  // Read within the transaction, so that it is the version of just these rows.
  std::int64_t version = 0;
  std::int64_t layout = 0;
  bool loaded = number(version_, version) && number(layout_, layout);
  if (loaded) sealed_ = std::to_string(layout) == layout_version;
  loaded = loaded && loadKeys(contents, unreadable) && loadEntries(contents, unreadable);
  if (alone) rollback();
  if (loaded) seen_version_ = version;
  return loaded;
}

/// Nothing when the row does not match its checksum.
std::optional<Bytes> SuiteFile::archiveOf(std::string_view key, std::string_view entry,
                                          std::string_view row) const {
  return sealed_ ? unsealedRow(key, entry, asBytes(row)) : asBytes(row);
}

bool SuiteFile::loadKeys(Dictionary& contents, std::vector<std::string>& unreadable) {
  int result = SQLITE_OK;
  while ((result = keys_.step()) == SQLITE_ROW) {
    const std::string_view key = keys_.bytes(0);
    const std::optional<Bytes> archive = archiveOf(key, {}, keys_.bytes(1));
    const bool is_dictionary = archive && archive->empty();
    Value value = is_dictionary ? Value(Dictionary()) : unarchivedValue(archive.value_or(Bytes()));
    if (value.isNothing()) unreadable.emplace_back(key);
    contents.set(key, std::move(value));
  }
  keys_.rewind();
  return result == SQLITE_DONE || worked(result);
}

/// Entries without a row for their key belong to a dictionary whose own row was lost.
bool SuiteFile::loadEntries(Dictionary& contents, std::vector<std::string>& unreadable) {
  std::string key;
  Dictionary entries;  // of `key`
  const auto keep = [&] {
    const Value& before = contents[key];
    if (!entries.empty() && (before.isNothing() || before.isDictionary()))
      contents.set(key, std::exchange(entries, {}));
    entries.clear();
  };
  int result = SQLITE_OK;
  while ((result = entries_.step()) == SQLITE_ROW) {
    if (entries_.bytes(0) != key) {
      keep();
      key = entries_.bytes(0);
    }
    const std::string_view entry = entries_.bytes(1);
    Value value = unarchivedValue(archiveOf(key, entry, entries_.bytes(2)).value_or(Bytes()));
    if (value.isNothing()) unreadable.emplace_back(entry);
    entries.set(entry, std::move(value));
  }
  keep();
  entries_.rewind();
  return result == SQLITE_DONE || worked(result);
}

/// The level can be set outside a transaction only.
bool SuiteFile::begin(bool durable) {
  error_.clear();
  full_ = false;
  if (durable != durable_ && !execute(durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL"))
    return false;
  durable_ = durable;
  return worked(begin_.run());
}

std::string SuiteFile::rowOf(std::string_view key, const Change& change) const {
  const Data archive = change.value != nullptr ? archivedData(*change.value) : Data();
  if (sealed_) return sealedRow(key, change.entry, archive.bytes());
  return std::string(asText(archive.bytes()));
}

bool SuiteFile::apply(std::string_view key, const Change& change) {
  Statement& statement = change.kind == Change::remove_key       ? remove_key_
                         : change.kind == Change::put_entry      ? put_entry_
                         : change.kind == Change::remove_entry   ? remove_entry_
                         : change.kind == Change::remove_entries ? remove_entries_
                                                                 : put_key_;
  const std::string row = rowOf(key, change);
  statement.bind(1, key);
  if (change.kind == Change::put_entry || change.kind == Change::remove_entry)
    statement.bind(2, change.entry);
  if (change.kind == Change::put_entry) statement.bind(3, row);
  if (change.kind == Change::put_value) statement.bind(2, row);
  if (change.kind == Change::put_dictionary && sealed_) statement.bind(2, row);
  if (change.kind == Change::put_dictionary && !sealed_) statement.bindNull(2);
  return worked(statement.run());
}

bool SuiteFile::commit() {
  measure();
  if (!worked(commit_.run())) {
    rollback();
    return false;
  }
  const std::optional<LogPosition> position = durable_ ? logPosition() : std::nullopt;
  if (position) mark_.set(*position);
  return true;
}

void SuiteFile::rollback() {
  if (sqlite3_get_autocommit(connection_.get()) == 0) rollback_.run();
}

bool SuiteFile::moved() const {
  int moved = 0;
  const int result = sqlite3_file_control(connection_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
  return result == SQLITE_OK && moved != 0;
}

bool SuiteFile::execute(const char* sql) {
  return worked(sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr));
}

bool SuiteFile::single(const char* sql, std::string& text) {
  Statement statement(connection_, sql);
  const int prepared = sqlite3_errcode(connection_.get());
  if (prepared != SQLITE_OK) return worked(prepared);
  const int result = statement.step();
  if (result == SQLITE_ROW) text = statement.bytes(0);
  return result == SQLITE_ROW ? worked(statement.rewind()) : worked(result);
}

bool SuiteFile::worked(int result) {
  if (result == SQLITE_OK) return true;
  error_ = sqlite3_errmsg(connection_.get());
  const int kind = result & 0xff;
  damaged_ = damaged_ || kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB;
  full_ = kind == SQLITE_FULL;
  return false;
}

bool SuiteFile::number(Statement& statement, std::int64_t& number) {
  const int result = statement.step();
  number = statement.integer(0);
  const int rewound = statement.rewind();
  return result == SQLITE_ROW || worked(rewound);
}

bool SuiteFile::spoiled(std::string why) {
  error_ = std::move(why);
  damaged_ = true;
  return false;
}

}  // namespace kelvane::foundation
