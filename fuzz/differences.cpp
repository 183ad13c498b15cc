#include "fuzz/differences.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "fuzz/lax_body.h"
#include "platform/wire/reader.h"
#include "platform/wire/signature.h"

namespace kelvane::fuzz {
namespace {

using wire::Bytes;
using wire::HeaderField;

std::size_t numberAt(Bytes bytes, std::size_t at) {
  std::size_t number = 0;
  const bool big_endian = bytes[0] == std::byte{'B'};
  for (std::size_t i = 0; i < 4; ++i)
    number = number << 8U | std::to_integer<std::size_t>(bytes[at + (big_endian ? i : 3 - i)]);
  return number;
}

struct Field {
  std::uint8_t code;
  std::string_view type;
  std::string_view text;  // when the type is "s" or "g"
};

/// The fields of a header as they stand there, whatever they say, up to one that is malformed.
std::vector<Field> fieldsOf(Bytes message) {
  // From the serial on, so that positions keep their alignment.
  const std::size_t end = wire::fixed_header_size + numberAt(message, wire::fields_length_offset);
  if (message.size() < end) return {};
  wire::Header header;
  header.big_endian = message[0] == std::byte{'B'};
  header.signature = "ua(yv)";
  wire::Reader reader({header, message.first(end).subspan(wire::serial_offset)}, {});
  reader.readUint32();
  reader.enterArray("(yv)");
  std::vector<Field> fields;
  while (!reader.atEnd()) {
    reader.enterStruct();
    Field& field = fields.emplace_back(Field{reader.readByte(), {}, {}});
    reader.enterVariant();
    field.type = reader.nextCompleteType();
    if (field.type == "s") {
      field.text = reader.readString();
    } else if (field.type == "g") {
      field.text = reader.readSignature();
    } else {
      reader.skip();
    }
    reader.leave();
    reader.leave();
  }
  return fields;
}

template <class Test>
bool anyField(const Judged& judged, Test test) {
  const std::vector<Field> fields = fieldsOf(judged.bytes);
  return std::any_of(fields.begin(), fields.end(), test);
}

constexpr auto last_known = static_cast<std::uint8_t>(HeaderField::descriptors);

bool namesADescriptorThatDidNotCome(const Judged& judged) {
  return judged.message && !judged.accepted && isBodyValidBut(*judged.message, {.descriptors = true});
}

/// ":1" and ":.1".
bool hasAUniqueNameThatLacksAnElement(const Judged& judged) {
  return anyField(judged, [](const Field& field) {
    const bool is_name = field.code == static_cast<std::uint8_t>(HeaderField::destination) ||
                         field.code == static_cast<std::uint8_t>(HeaderField::sender);
    if (!is_name || !field.text.starts_with(':')) return false;
    return field.text.starts_with(":.") || field.text.find('.') == std::string_view::npos;
  });
}

bool hasAFieldThatOnlyLibdbusKnows(const Judged& judged) {
  constexpr std::uint8_t container_instance = 10;
  return anyField(judged, [](const Field& field) { return field.code == container_instance; });
}

/// "org.freedesktop.DBus.Locally".
bool hasANameThatBeginsLikeAReservedOne(const Judged& judged) {
  return judged.message && (judged.message->header.interface.starts_with(wire::reserved_interface) ||
                            judged.message->header.path.starts_with(wire::reserved_path));
}

/// As what a library tells its own process does.
bool comesFromAReservedName(const Judged& judged) {
  return judged.message && judged.message->header.sender == wire::reserved_interface;
}

bool hasAnUnknownFieldOfAContainerType(const Judged& judged) {
  return anyField(judged, [](const Field& field) {
    return field.code > last_known && !field.type.empty() && !wire::isBasicType(field.type.front());
  });
}

/// U+FFFE, U+FDD0 and the like. Texts are UTF-8 here, so the bytes are looked for.
bool hasANoncharacter(const Judged& judged) {
  const auto at = [&](std::size_t i) { return std::to_integer<unsigned>(judged.bytes[i]); };
  for (std::size_t i = 0; i + 2 < judged.bytes.size(); ++i) {
    if (at(i) == 0xEF && at(i + 1) == 0xB7 && at(i + 2) >= 0x90 && at(i + 2) <= 0xAF) return true;
    if ((at(i) & 0xFU) == 0xF && at(i + 1) == 0xBF && at(i + 2) >= 0xBE) return true;
  }
  return false;
}

}  // namespace

bool libdbusMayRefuse(const Judged& judged) {
  return hasAFieldThatOnlyLibdbusKnows(judged) || hasANameThatBeginsLikeAReservedOne(judged);
}

bool libdbusMayAccept(const Judged& judged) {
  return namesADescriptorThatDidNotCome(judged) || hasAUniqueNameThatLacksAnElement(judged);
}

bool sdBusMayRefuse(const Judged& judged) {
  return hasAnUnknownFieldOfAContainerType(judged) || hasANoncharacter(judged) ||
         comesFromAReservedName(judged);
}

}  // namespace kelvane::fuzz
