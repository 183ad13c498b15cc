#pragma once

// Property lists, XML and binary, to values and back.
//
// Whoever may write a descriptor or grant file is not thereby allowed to exhaust this process, so the bytes
// are checked against PropertyListLimits before they reach the library that parses them. What the library
// would take for something else than was written (an integer that is none or does not fit 64 bits, a date
// that is none, a key without a value) is an error as well; of two entries with one key, the last counts.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "kelvane/value.h"

namespace kelvane {

struct PropertyListLimits {
  std::size_t bytes = std::size_t{4} << 20;  ///< of the file
  std::size_t depth = 64;                    ///< arrays and dictionaries inside one another
  std::size_t objects = 65536;               ///< keys included; one counts each time it is referred to
  std::size_t expanded_bytes = std::size_t{16} << 20;  ///< of strings and data, each counted as `objects` are
};

struct PropertyListResult {
  Value value;                       ///< nothing when there is an error
  std::optional<std::string> error;  ///< says what was wrong, without the file's name
};

/// Reads an XML (UTF-8) or binary property list; the root may be any object. Signed integers come out signed,
/// those above 2^63-1 unsigned, UIDs as unsigned integers. Dates keep their microseconds (binary only). A
/// string that is not UTF-8 or holds a NUL is an error, since no message could carry it. A null object is an
/// error. Callable on any thread; throws nothing.
[[nodiscard]] PropertyListResult propertyListWithData(std::span<const std::uint8_t> bytes,
                                                      const PropertyListLimits& limits = {});
[[nodiscard]] PropertyListResult propertyListWithData(const Data& data,
                                                      const PropertyListLimits& limits = {});

struct PropertyListXMLResult {
  std::string xml;                   ///< empty when there is an error
  std::optional<std::string> error;  ///< says what cannot be written
};

/// Writes `value` as an XML property list that `propertyListWithData` reads back equal, but for dates, which
/// lose their fraction of a second. Nothing, text that XML cannot carry (NUL, other control characters,
/// broken UTF-8), dates outside the years 1000 to 9999 and nesting beyond 64 are errors. Callable on any
/// thread; throws nothing.
[[nodiscard]] PropertyListXMLResult propertyListXML(const Value& value);

}  // namespace kelvane
