#include "fuzz/body_text.h"

#include <bit>

namespace kelvane::fuzz {
namespace {

std::string insideText(wire::Reader& reader, char open, char close) {
  std::string text(1, open);
  text += bodyText(reader) + close;
  reader.leave();
  return text;
}

std::string containerText(wire::Reader& reader) {
  switch (reader.nextType()) {
    case 'a':
      reader.enterArray();
      return insideText(reader, '[', ']');
    case '(':
      reader.enterStruct();
      return insideText(reader, '(', ')');
    case '{':
      reader.enterEntry();
      return insideText(reader, '{', '}');
    default: {
      reader.enterVariant();
      const std::string type(reader.nextCompleteType());
      return "<" + type + " " + insideText(reader, ' ', '>');
    }
  }
}

std::string valueText(wire::Reader& reader) {
  const char type = reader.nextType();
  switch (type) {
    case 'y':
      return numberText(type, reader.readByte());
    case 'b':
      return numberText(type, reader.readBoolean() ? 1 : 0);
    case 'n':
      return numberText(type, static_cast<std::uint16_t>(reader.readInt16()));
    case 'q':
      return numberText(type, reader.readUint16());
    case 'i':
      return numberText(type, static_cast<std::uint32_t>(reader.readInt32()));
    case 'u':
      return numberText(type, reader.readUint32());
    case 'x':
      return numberText(type, static_cast<std::uint64_t>(reader.readInt64()));
    case 't':
      return numberText(type, reader.readUint64());
    case 'd':
      return numberText(type, std::bit_cast<std::uint64_t>(reader.readDouble()));
    case 's':
      return stringText(type, reader.readString());
    case 'o':
      return stringText(type, reader.readObjectPath());
    case 'g':
      return stringText(type, reader.readSignature());
    case 'h':
      reader.skip();
      return "h ";
    default:
      return containerText(reader);
  }
}

}  // namespace

std::string numberText(char type, std::uint64_t bits) { return type + std::to_string(bits) + " "; }

std::string stringText(char type, std::string_view text) {
  return type + std::to_string(text.size()) + ":" + std::string(text) + " ";
}

std::string headerText(const HeaderFields& header) {
  std::string text = numberText('t', header.type) + numberText('s', header.serial) +
                     numberText('r', header.reply_serial) + (header.expects_reply ? "! " : ". ");
  for (const std::string* field : {&header.path, &header.interface, &header.member, &header.error_name,
                                   &header.destination, &header.sender, &header.signature}) {
    text += stringText('f', *field);
  }
  return text;
}

std::string headerText(const wire::Header& header) {
  return headerText(HeaderFields{static_cast<std::uint8_t>(header.type), header.serial, header.reply_serial,
                                 header.expectsReply(), std::string(header.path),
                                 std::string(header.interface), std::string(header.member),
                                 std::string(header.error_name), std::string(header.destination),
                                 std::string(header.sender), std::string(header.signature)});
}

std::string bodyText(wire::Reader& reader) {
  std::string text;
  while (!reader.atEnd()) text += valueText(reader);
  return text;
}

std::string bodyText(const wire::Message& message) {
  wire::Reader reader(message, {});
  return bodyText(reader);
}

}  // namespace kelvane::fuzz
