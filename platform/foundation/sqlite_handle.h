#pragma once

// What the settings use of SQLite. Internal to this folder.

#include <sqlite3.h>

#include <memory>
#include <string_view>

namespace kelvane::foundation {

struct CloseConnection {
  void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

/// A prepared statement, kept for the life of its connection and reset after each use. Positions count from 1
/// for parameters and from 0 for columns.
class Statement {
 public:
  Statement() = default;
  Statement(const Connection& connection, std::string_view sql);

  /// Bytes are read until the next `run` or `rewind` ends; an empty text is not the same as null.
  void bind(int position, std::string_view bytes);
  void bindNull(int position) { sqlite3_bind_null(statement_.get(), position); }

  /// SQLITE_ROW while there are rows.
  [[nodiscard]] int step() { return sqlite3_step(statement_.get()); }
  /// Makes the statement ready for its next use and lets go of what it read.
  int rewind();
  /// For statements without rows: steps once and rewinds. SQLITE_OK or what went wrong.
  int run();

  [[nodiscard]] bool isNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
  }
  /// Valid until the next step or rewind.
  [[nodiscard]] std::string_view bytes(int column) const;
  [[nodiscard]] sqlite3_int64 integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
  }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

}  // namespace kelvane::foundation
