#pragma once

// Property-list values in messages. docs/wire-protocol.md, "Values", has the table.

#include "kelvane/value.h"
#include "platform/wire/reader.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

/// Writes a value that is not nothing as one variant.
void writeVariant(wire::Writer& out, const Value& value);
void writeDictionary(wire::Writer& out, const Dictionary& dictionary);

/// Reads whatever value is next.
void readValue(wire::Reader& in, Value& value);
/// Reads an array of dictionary entries, whatever they hold; adds to what the dictionary has.
void readDictionary(wire::Reader& in, Dictionary& dictionary);

}  // namespace kelvane::xpc
