#include "platform/xpc/wire_value.h"

#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/wire/protocol.h"
#include "platform/xpc/decoding.h"

namespace kelvane::xpc {
namespace {

// --- writing ---

void writeVariant(wire::Writer& out, const Value& value, unsigned depth);

void writeDictionary(wire::Writer& out, const Dictionary& dictionary, unsigned depth) {
  out.openArray("{sv}");
  for (const auto& [key, value] : dictionary) {
    out.openEntry("sv");
    out.writeString(key);
    writeVariant(out, value, depth);
    out.closeEntry();
  }
  out.closeArray();
}

void writeArray(wire::Writer& out, const Array& array, unsigned depth) {
  out.openArray("v");
  for (const Value& element : array) writeVariant(out, element, depth);
  out.closeArray();
}

struct VariantWriter {
  wire::Writer& out;
  unsigned depth;

  // Arrays and dictionaries hold no nothing, and nothing else that may be nothing travels as a variant.
  void operator()(std::monostate) const { out.openVariant(""); }
  void operator()(bool boolean) const {
    out.openVariant("b");
    out.writeBoolean(boolean);
    out.closeVariant();
  }
  void operator()(std::int64_t number) const {
    out.openVariant("x");
    out.writeInt64(number);
    out.closeVariant();
  }
  void operator()(std::uint64_t number) const {
    out.openVariant("t");
    out.writeUint64(number);
    out.closeVariant();
  }
  void operator()(double number) const {
    out.openVariant("d");
    out.writeDouble(number);
    out.closeVariant();
  }
  void operator()(const foundation::CopyOnWrite<std::string>& text) const {
    out.openVariant("s");
    out.writeString(*text);
    out.closeVariant();
  }
  void operator()(const Data& data) const {
    out.openVariant("ay");
    out.writeBytes(std::as_bytes(std::span(data.bytes())));
    out.closeVariant();
  }
  void operator()(Date date) const {
    out.openVariant("(x)");
    out.openStruct("x");
    out.writeInt64(date.microseconds);
    out.closeStruct();
    out.closeVariant();
  }
  void operator()(const Array& array) const {
    out.openVariant("av");
    writeArray(out, array, depth + 1);
    out.closeVariant();
  }
  void operator()(const Dictionary& dictionary) const {
    out.openVariant("a{sv}");
    writeDictionary(out, dictionary, depth + 1);
    out.closeVariant();
  }
};

/// Deeper than D-Bus allows the writer has refused already, and nothing is gained by going on.
void writeVariant(wire::Writer& out, const Value& value, unsigned depth) {
  if (depth <= wire::deepest_containers) std::visit(VariantWriter{out, depth}, value.held());
}

// --- reading ---

/// False, and a fault, when the message holds too many.
bool mayReadOneMore(wire::Reader& in) {
  Decoding* const decoding = Decoding::current();
  if (decoding == nullptr || decoding->countValue()) return true;
  in.refuse(wire::Fault::excessive);
  return false;
}

std::string_view readText(wire::Reader& in, char type) {
  switch (type) {
    case 's':
      return in.readString();
    case 'o':
      return in.readObjectPath();
    default:
      return in.readSignature();
  }
}

bool isText(char type) { return type == 's' || type == 'o' || type == 'g'; }

void readArray(wire::Reader& in, Value& value) {
  Array array;
  in.enterArray();
  while (!in.atEnd()) {
    Value element;
    readValue(in, element);
    array.append(std::move(element));
  }
  in.leave();
  value = std::move(array);
}

void readBytes(wire::Reader& in, Value& value) {
  const std::span<const std::byte> bytes = in.readBytes();
  const auto* const first = reinterpret_cast<const std::uint8_t*>(bytes.data());
  value = Data(Data::Bytes(first, first + bytes.size()));
}

void readDate(wire::Reader& in, Value& value) {
  in.enterStruct();
  value = Date{in.readInt64()};
  in.leave();
}

void readContainer(wire::Reader& in, Value& value) {
  const std::string_view type = in.nextCompleteType();
  if (type == "ay") {
    readBytes(in, value);
  } else if (type.starts_with("a{")) {
    Dictionary dictionary;
    readDictionary(in, dictionary);
    value = std::move(dictionary);
  } else if (type.starts_with('a')) {
    readArray(in, value);
  } else if (type == "(x)") {
    readDate(in, value);
  } else {
    in.refuse();  // descriptors have no place in a property list
  }
}

}  // namespace

void writeVariant(wire::Writer& out, const Value& value) { writeVariant(out, value, 0); }
void writeDictionary(wire::Writer& out, const Dictionary& dictionary) { writeDictionary(out, dictionary, 0); }

void readDictionary(wire::Reader& in, Dictionary& dictionary) {
  const std::string_view type = in.nextCompleteType();
  if (!type.starts_with("a{") || !isText(type[2])) {
    in.refuse();
    return;
  }
  in.enterArray();
  while (!in.atEnd()) {
    in.enterEntry();
    const std::string_view key = readText(in, type[2]);
    Value value;
    readValue(in, value);
    in.leave();
    dictionary.set(key, std::move(value));
  }
  in.leave();
}

void readValue(wire::Reader& in, Value& value) {
  if (!mayReadOneMore(in)) return;
  switch (const char type = in.nextType(); type) {
    case 'y':
      value = in.readByte();
      break;
    case 'n':
      value = in.readInt16();
      break;
    case 'q':
      value = in.readUint16();
      break;
    case 'i':
      value = in.readInt32();
      break;
    case 'u':
      value = in.readUint32();
      break;
    case 'x':
      value = in.readInt64();
      break;
    case 't':
      value = in.readUint64();
      break;
    case 'd':
      value = in.readDouble();
      break;
    case 'b':
      value = in.readBoolean();
      break;
    case 's':
    case 'o':
    case 'g':
      value = readText(in, type);
      break;
    case 'v':
      in.enterVariant();
      readValue(in, value);
      in.leave();
      break;
    default:
      readContainer(in, value);
  }
}

}  // namespace kelvane::xpc
