#include "platform/foundation/sqlite_handle.h"

namespace kelvane::foundation {

Statement::Statement(const Connection& connection, std::string_view sql) {
  sqlite3_stmt* prepared = nullptr;
  sqlite3_prepare_v3(connection.get(), sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                     &prepared, nullptr);
  statement_.reset(prepared);
}

void Statement::bind(int position, std::string_view bytes) {
  const char* const start = bytes.empty() ? "" : bytes.data();
  sqlite3_bind_blob64(statement_.get(), position, start, bytes.size(), SQLITE_STATIC);
}

int Statement::rewind() {
  const int result = sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
  return result;
}

int Statement::run() {
  const int stepped = step();
  const int rewound = rewind();
  return stepped == SQLITE_DONE || stepped == SQLITE_ROW ? rewound : stepped;
}

std::string_view Statement::bytes(int column) const {
  const void* const start = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return start == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(start), size);
}

}  // namespace kelvane::foundation
