#include "platform/wire/header.h"

#include <bitset>
#include <limits>

#include "platform/wire/byte_order.h"
#include "platform/wire/names.h"
#include "platform/wire/reader.h"
#include "platform/wire/signature.h"

namespace kelvane::wire {
namespace {

/// Of a message whose byte order is known to be valid.
bool isBigEndian(Bytes message) { return message[0] == std::byte{'B'}; }

std::uint32_t numberAt(Bytes message, std::size_t offset) {
  return loadUnsigned<std::uint32_t>(message.data() + offset, isBigEndian(message) != machine_is_big_endian);
}

/// The type of a field's value; '\0' for a field that this version of the protocol does not know.
char typeOf(HeaderField field) {
  switch (field) {
    case HeaderField::path:
      return 'o';
    case HeaderField::interface:
    case HeaderField::member:
    case HeaderField::error_name:
    case HeaderField::destination:
    case HeaderField::sender:
      return 's';
    case HeaderField::signature:
      return 'g';
    case HeaderField::reply_serial:
    case HeaderField::descriptors:
      return 'u';
  }
  return '\0';
}

bool hasRequiredFields(const Header& header) {
  switch (header.type) {
    case MessageType::method_call:
      return !header.path.empty() && !header.member.empty();
    case MessageType::method_return:
      return header.reply_serial != 0;
    case MessageType::error:
      return !header.error_name.empty() && header.reply_serial != 0;
    case MessageType::signal:
      return !header.path.empty() && !header.interface.empty() && !header.member.empty();
  }
  return true;
}

bool isAbsentOr(bool (*is_valid)(std::string_view), std::string_view name) {
  return name.empty() || is_valid(name);
}

}  // namespace

/// The fields of one header, in whatever order they come. Most of the cost of reading a message is its
/// header. Every known field is a code and a variant with a one-letter signature, so these are read directly
/// as bytes.
class FieldReader {
 public:
  FieldReader(Reader& reader, Header& header) : reader_(reader), header_(header) {}

  /// Reads one field; false when it is invalid.
  bool read() {
    if (!reader_.align(8) || !reader_.hasRoom(start_size)) return false;
    const std::byte* const start = reader_.bytes_.data() + reader_.position_;
    const auto code = static_cast<std::uint8_t>(start[0]);
    if (code == 0) return false;
    const auto field = static_cast<HeaderField>(code);
    const char type = typeOf(field);
    if (type == '\0') return skip();
    if (seen_[code]) return false;
    seen_.set(code);
    if (start[1] != std::byte{1} || start[2] != static_cast<std::byte>(type) || start[3] != std::byte{0})
      return false;
    reader_.position_ += start_size;
    return readValue(field) && reader_.fault() == Fault::none;
  }

 private:
  static constexpr std::size_t start_size = 4;  // code, and a signature of one letter

  bool skip() {
    reader_.enterStruct();
    reader_.skip();
    reader_.skip();
    reader_.leave();
    return reader_.fault() == Fault::none;
  }

  bool readValue(HeaderField field) {
    switch (field) {
      case HeaderField::path:
        return readName(header_.path, isObjectPath) && header_.path != reserved_path;
      case HeaderField::interface:
        return readName(header_.interface, isInterfaceName) && header_.interface != reserved_interface;
      case HeaderField::member:
        return readName(header_.member, isMemberName);
      case HeaderField::error_name:
        return readName(header_.error_name, isErrorName);
      case HeaderField::destination:
        return readName(header_.destination, isBusName);
      case HeaderField::sender:
        return readName(header_.sender, isBusName);
      case HeaderField::signature:
        header_.signature = reader_.readShortText();
        return isSignature(header_.signature);
      case HeaderField::reply_serial:
        header_.reply_serial = readNumber();
        return header_.reply_serial != 0;
      case HeaderField::descriptors:
        header_.descriptors = readNumber();
        return true;
    }
    return false;
  }
  /// No rule of names allows an empty one.
  bool readName(std::string_view& name, bool (*is_valid)(std::string_view)) {
    const std::uint32_t length = readNumber();
    if (reader_.fault() != Fault::none) return false;
    name = reader_.readText(length);
    return is_valid(name);
  }
  std::uint32_t readNumber() {
    if (!reader_.hasRoom(sizeof(std::uint32_t))) return 0;
    const auto number =
        loadUnsigned<std::uint32_t>(reader_.bytes_.data() + reader_.position_, reader_.swapped_);
    reader_.position_ += sizeof number;
    return number;
  }

  Reader& reader_;
  Header& header_;
  std::bitset<256> seen_;  // of the known ones
};

bool isHeaderValid(const Header& header) {
  return hasRequiredFields(header) && isAbsentOr(isObjectPath, header.path) &&
         isAbsentOr(isInterfaceName, header.interface) && isAbsentOr(isMemberName, header.member) &&
         isAbsentOr(isErrorName, header.error_name) && isAbsentOr(isBusName, header.destination) &&
         isAbsentOr(isBusName, header.sender) && isSignature(header.signature) &&
         header.path != reserved_path && header.interface != reserved_interface;
}

std::optional<std::size_t> claimedSize(std::span<const std::byte, fixed_header_size> start) {
  const bool has_byte_order = start[0] == std::byte{'l'} || start[0] == std::byte{'B'};
  if (!has_byte_order || start[1] == std::byte{0} || start[3] != std::byte{protocol_version}) return {};
  const std::size_t fields = numberAt(start, fields_length_offset);
  const std::size_t body = numberAt(start, body_length_offset);
  if (numberAt(start, serial_offset) == 0 || fields > longest_array || body > longest_protocol_message)
    return {};
  const std::size_t size = aligned(fixed_header_size + fields, 8) + body;
  return size <= longest_protocol_message ? std::optional(size) : std::nullopt;
}

std::optional<Message> parseMessage(Bytes message) {
  if (message.size() < fixed_header_size) return {};
  if (claimedSize(message.first<fixed_header_size>()) != message.size()) return {};
  Message parsed;
  Header& header = parsed.header;
  header.big_endian = isBigEndian(message);
  header.type = static_cast<MessageType>(message[1]);
  header.flags = static_cast<std::uint8_t>(message[2]);
  header.serial = numberAt(message, serial_offset);
  const std::size_t body = numberAt(message, body_length_offset);
  parsed.body = message.last(body);

  // The fields are read like a body that begins where the message does, so that positions keep their
  // alignment. A descriptor that an unknown field names is not looked up: nobody takes it.
  const Message fields{{.big_endian = header.big_endian, .signature = "a(yv)"},
                       message.first(message.size() - body)};
  constexpr auto any_descriptor = std::numeric_limits<std::size_t>::max();
  Reader reader(fields, {}, any_descriptor);
  reader.position_ = fields_length_offset;
  FieldReader field(reader, header);
  reader.enterArray("(yv)");
  while (!reader.atEnd()) {
    if (!field.read()) return {};
  }
  reader.leave();
  if (!reader.align(8) || !reader.finish() || !hasRequiredFields(header)) return {};
  if (header.signature.empty() && body > 0) return {};
  return parsed;
}

}  // namespace kelvane::wire
