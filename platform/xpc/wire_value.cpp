#include "platform/xpc/wire_value.h"

#include <cstddef>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/wire/protocol.h"
#include "platform/wire/sendable_text.h"
#include "platform/xpc/decoding.h"

namespace kelvane::xpc {
namespace {

// --- writing ---

void writeVariant(wire::Writer& out, const Value& value, unsigned depth);

/// The keys of a dictionary as they are sent. Keys that become equal by repair get different numbers;
/// otherwise the receiver would lose a value.
class SentKeys {
 public:
  explicit SentKeys(const Dictionary& dictionary) : dictionary_(dictionary) {}

  void write(wire::Writer& out, const std::string& key) {
    if (wire::isSendable(key)) return out.writeString(key);
    out.writeString(distinct(wire::repairedText(key)));
  }

 private:
  std::string distinct(const std::string& key) {
    std::string name = key;
    while (dictionary_.contains(name) || !repaired_.insert(name).second)
      name = key + ' ' + std::to_string(++number_);
    return name;
  }

  const Dictionary& dictionary_;
  std::set<std::string> repaired_;
  std::size_t number_ = 1;  // never reused, so that many such keys do not need many attempts each
};

void writeDictionary(wire::Writer& out, const Dictionary& dictionary, unsigned depth) {
  SentKeys keys(dictionary);
  out.openArray("{sv}");
  for (const auto& [key, value] : dictionary) {
    out.openEntry("sv");
    keys.write(out, key);
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

  // Arrays and dictionaries never hold an empty value, and no other value that may be empty is sent as a
  // variant.
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

/// The writer has already refused nesting deeper than D-Bus allows, so stop.
void writeVariant(wire::Writer& out, const Value& value, unsigned depth) {
  if (depth <= wire::deepest_containers) std::visit(VariantWriter{out, depth}, value.held());
}

// --- reading ---

// What each kind takes at least, its place in what holds it and what the allocator adds included.
constexpr std::size_t plain_bytes = 2 * sizeof(Value);  // an array has up to twice the room that it needs
constexpr std::size_t shared_bytes = plain_bytes + 64;
constexpr std::size_t entry_bytes = 80;  // beside its value and its key

/// False, with a fault, if that exceeds what the message's values may take.
bool mayTake(wire::Reader& in, std::size_t bytes) {
  Decoding* const decoding = Decoding::current();
  if (decoding == nullptr || decoding->take(bytes)) return true;
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

void readString(wire::Reader& in, char type, Value& value) {
  const std::string_view text = readText(in, type);
  if (mayTake(in, shared_bytes + text.size())) value = text;
}

/// A number.
template <class Read>
void readPlain(wire::Reader& in, Value& value, Read read) {
  if (mayTake(in, plain_bytes)) value = (in.*read)();
}

bool isText(char type) { return type == 's' || type == 'o' || type == 'g'; }

void readArray(wire::Reader& in, Value& value) {
  if (!mayTake(in, shared_bytes)) return;
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
  if (!mayTake(in, shared_bytes + bytes.size())) return;
  const auto* const first = reinterpret_cast<const std::uint8_t*>(bytes.data());
  value = Data(Data::Bytes(first, first + bytes.size()));
}

void readDate(wire::Reader& in, Value& value) {
  if (!mayTake(in, plain_bytes)) return;
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
  if (!mayTake(in, shared_bytes)) return;
  in.enterArray();
  while (!in.atEnd()) {
    in.enterEntry();
    const std::string_view key = readText(in, type[2]);
    if (!mayTake(in, entry_bytes + key.size())) return;
    Value value;
    readValue(in, value);
    in.leave();
    dictionary.set(key, std::move(value));
  }
  in.leave();
}

void readValue(wire::Reader& in, Value& value) {
  switch (const char type = in.nextType(); type) {
    case 'y':
      return readPlain(in, value, &wire::Reader::readByte);
    case 'n':
      return readPlain(in, value, &wire::Reader::readInt16);
    case 'q':
      return readPlain(in, value, &wire::Reader::readUint16);
    case 'i':
      return readPlain(in, value, &wire::Reader::readInt32);
    case 'u':
      return readPlain(in, value, &wire::Reader::readUint32);
    case 'x':
      return readPlain(in, value, &wire::Reader::readInt64);
    case 't':
      return readPlain(in, value, &wire::Reader::readUint64);
    case 'd':
      return readPlain(in, value, &wire::Reader::readDouble);
    case 'b':
      return readPlain(in, value, &wire::Reader::readBoolean);
    case 's':
    case 'o':
    case 'g':
      return readString(in, type, value);
    case 'v':
      in.enterVariant();
      readValue(in, value);
      return in.leave();
    default:
      return readContainer(in, value);
  }
}

}  // namespace kelvane::xpc
