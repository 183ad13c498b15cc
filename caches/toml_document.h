#pragma once

// A TOML document as a tree of values that know their lines. Only this file includes the parsing library.
//
// Threads. Any. Nothing is thrown.

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelvane::caches {

struct TomlEntry;

struct TomlValue {
  struct Other {
    const char* type;  // "a float", "a date"
  };
  using Array = std::vector<TomlValue>;
  using Table = std::vector<TomlEntry>;

  std::size_t line = 0;  // from 1
  std::variant<Other, bool, std::int64_t, std::string, Array, Table> value;

  [[nodiscard]] const std::string* string() const { return std::get_if<std::string>(&value); }
  [[nodiscard]] const std::int64_t* integer() const { return std::get_if<std::int64_t>(&value); }
  [[nodiscard]] const bool* boolean() const { return std::get_if<bool>(&value); }
  [[nodiscard]] const Array* array() const { return std::get_if<Array>(&value); }
  [[nodiscard]] const Table* table() const { return std::get_if<Table>(&value); }
  /// "a string", "a table", ...
  [[nodiscard]] const char* type() const;
};

struct TomlEntry {
  std::string key;
  TomlValue value;  // its line is that of the key
};

struct TomlDocument {
  TomlValue::Table root;  // empty when there is an error
  std::string error;      // empty: none
  std::size_t error_line = 0;
};

/// Refuses malformed TOML, a byte order mark, and NUL bytes anywhere.
[[nodiscard]] TomlDocument parseToml(std::string_view text);

}  // namespace kelvane::caches
