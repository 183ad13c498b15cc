#include "tests/wire/random_body.h"

#include <bit>

#include "platform/wire/signature.h"

namespace kelvane::wire {
namespace {

constexpr std::string_view basic_types = "ybnqiuxtdsog";

std::string_view inside(std::string_view bracketed) { return bracketed.substr(1, bracketed.size() - 2); }

}  // namespace

std::string RandomBody::completeType(int depth) {
  const std::uint32_t kind = below(depth < 4 ? 20 : 14);
  if (kind < 12) return std::string(1, basic_types[kind]);
  if (kind < 14) return "v";
  if (kind < 16) return "a" + completeType(depth + 1);
  if (kind < 18) return std::string("a{") + basic_types[below(12)] + completeType(depth + 1) + "}";
  std::string fields = completeType(depth + 1);
  while (below(2) == 0) fields += completeType(depth + 1);
  return "(" + fields + ")";
}

std::string RandomBody::signature() {
  std::string types;
  for (std::uint32_t count = below(4) + 1; count > 0; --count) types += completeType(0);
  return types;
}

std::string RandomBody::text() {
  std::string text;
  for (std::uint32_t length = below(20); length > 0; --length) text += below(4) == 0 ? "\xe2\x82\xac" : "x";
  return text;
}

void RandomBody::write(Writer& writer, std::string_view signature, int depth) {
  while (!signature.empty()) {
    const std::size_t length = completeTypeLength(signature);
    writeOne(writer, signature.substr(0, length), depth);
    signature.remove_prefix(length);
  }
}

void RandomBody::writeArray(Writer& writer, std::string_view element, int depth) {
  writer.openArray(element);
  for (std::uint32_t count = below(4); count > 0; --count) {
    if (element.front() != '{') {
      writeOne(writer, element, depth + 1);
      continue;
    }
    writer.openEntry(inside(element));
    write(writer, inside(element), depth + 1);
    writer.closeEntry();
  }
  writer.closeArray();
}

void RandomBody::writeOne(Writer& writer, std::string_view type, int depth) {
  const std::uint64_t number = std::uint64_t{random_()} << 32 | random_();
  switch (type.front()) {
    case 'y':
      return writer.writeByte(static_cast<std::uint8_t>(number));
    case 'b':
      return writer.writeBoolean(number % 2 == 0);
    case 'n':
      return writer.writeInt16(static_cast<std::int16_t>(number));
    case 'q':
      return writer.writeUint16(static_cast<std::uint16_t>(number));
    case 'i':
      return writer.writeInt32(static_cast<std::int32_t>(number));
    case 'u':
      return writer.writeUint32(static_cast<std::uint32_t>(number));
    case 'x':
      return writer.writeInt64(static_cast<std::int64_t>(number));
    case 't':
      return writer.writeUint64(number);
    case 'd':
      return writer.writeDouble(std::bit_cast<double>(number));
    case 's':
      return writer.writeString(text());
    case 'o':
      return writer.writeObjectPath(number % 2 == 0 ? "/" : "/some/path");
    case 'g':
      return writer.writeSignature(signature());
    case 'a':
      return writeArray(writer, type.substr(1), depth);
    case '(':
      writer.openStruct(inside(type));
      write(writer, inside(type), depth + 1);
      return writer.closeStruct();
    default: {
      const std::string held = completeType(depth + 1);
      writer.openVariant(held);
      writeOne(writer, held, depth + 1);
      return writer.closeVariant();
    }
  }
}

void transcribe(Reader& reader, Writer& writer) {
  while (!reader.atEnd()) {
    const std::string_view type = reader.nextCompleteType();
    switch (type.front()) {
      case 'y':
        writer.writeByte(reader.readByte());
        break;
      case 'b':
        writer.writeBoolean(reader.readBoolean());
        break;
      case 'n':
        writer.writeInt16(reader.readInt16());
        break;
      case 'q':
        writer.writeUint16(reader.readUint16());
        break;
      case 'i':
        writer.writeInt32(reader.readInt32());
        break;
      case 'u':
        writer.writeUint32(reader.readUint32());
        break;
      case 'x':
        writer.writeInt64(reader.readInt64());
        break;
      case 't':
        writer.writeUint64(reader.readUint64());
        break;
      case 'd':
        writer.writeDouble(reader.readDouble());
        break;
      case 's':
        writer.writeString(reader.readString());
        break;
      case 'o':
        writer.writeObjectPath(reader.readObjectPath());
        break;
      case 'g':
        writer.writeSignature(reader.readSignature());
        break;
      case 'a':
        reader.enterArray();
        writer.openArray(type.substr(1));
        transcribe(reader, writer);
        reader.leave();
        writer.closeArray();
        break;
      case '(':
        reader.enterStruct();
        writer.openStruct(inside(type));
        transcribe(reader, writer);
        reader.leave();
        writer.closeStruct();
        break;
      case '{':
        reader.enterEntry();
        writer.openEntry(inside(type));
        transcribe(reader, writer);
        reader.leave();
        writer.closeEntry();
        break;
      default:
        reader.enterVariant();
        writer.openVariant(reader.nextCompleteType());
        transcribe(reader, writer);
        reader.leave();
        writer.closeVariant();
    }
  }
}

}  // namespace kelvane::wire
