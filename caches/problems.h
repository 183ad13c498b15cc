#pragma once

// Collects the errors of a file, and converts the values of a TOML tree to their expected types.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "caches/definition_reader.h"
#include "caches/quotation.h"
#include "caches/toml_document.h"

namespace kelvane::caches {

inline constexpr std::size_t most_list_entries = 64;
inline constexpr std::size_t longest_string = 4096;

/// Collects the problems of one file. One thread at a time.
class Problems {
 public:
  explicit Problems(std::string file) : file_(std::move(file)) {}

  void add(std::size_t line, std::string reason);
  [[nodiscard]] bool none() const { return problems_.empty(); }
  /// By line, at most most_problems of them.
  [[nodiscard]] std::vector<Problem> take();

  // The value of an entry; nothing, and a problem, when it has another type or is too long.
  std::optional<std::string> string(const TomlEntry& entry);
  std::optional<bool> boolean(const TomlEntry& entry);
  std::optional<std::uint64_t> size(const TomlEntry& entry);
  /// Those that are strings, at most most_list_entries.
  std::vector<TomlValue> strings(const TomlEntry& entry);
  /// At most most_list_entries.
  const TomlValue::Array* array(const TomlEntry& entry);

  void unknownKey(const TomlEntry& entry, const std::string& where, const std::string& expected);

 private:
  void wrongType(const std::string& key, const TomlValue& value, const char* expected);
  bool isShort(const std::string& key, const TomlValue& value);

  const std::string file_;
  std::vector<Problem> problems_;
};

}  // namespace kelvane::caches
