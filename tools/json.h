#pragma once

#include <string>

#include "kelvane/value.h"

namespace kelvane::tools {

/// The value as JSON, indented, with a new line at its end. Nothing is null, data {"data": hexadecimal
/// digits}, a date
/// {"date": microseconds since 1970}; a number that JSON lacks is null, and bytes that are no UTF-8 become
/// U+FFFD.
[[nodiscard]] std::string jsonText(const Value& value);

/// The same as one line.
[[nodiscard]] std::string jsonLine(const Value& value);

/// The value that a JSON text says, in which null is nothing; nothing at all for what is no JSON. "data" and
/// "date" are read as `jsonText` writes them.
struct ReadJson {
  bool valid = false;
  Value value;
};
[[nodiscard]] ReadJson readJson(const std::string& text);

}  // namespace kelvane::tools
