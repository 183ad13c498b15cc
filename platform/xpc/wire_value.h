#pragma once

// Property-list values in messages. docs/wire-protocol.md, "Values", has the table.

#include "kelvane/value.h"
#include "platform/wire/reader.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

/// Writes a value, which must not be empty, as one variant.
void writeVariant(wire::Writer& out, const Value& value);
void writeDictionary(wire::Writer& out, const Dictionary& dictionary);

/// Reads the next value, whatever its type.
void readValue(wire::Reader& in, Value& value);
/// Reads an array of dictionary entries of any type, and adds them to the dictionary.
void readDictionary(wire::Reader& in, Dictionary& dictionary);

}  // namespace kelvane::xpc
