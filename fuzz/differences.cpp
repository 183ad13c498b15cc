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

struct Fields {
  std::vector<Field> list;  // up to the one that is malformed
  bool malformed = false;
};

/// The fields of a header as they stand there, whatever they say.
Fields fieldsOf(Bytes message) {
  // From the serial on, so that positions keep their alignment.
  const std::size_t end = wire::fixed_header_size + numberAt(message, wire::fields_length_offset);
  if (message.size() < end) return {};
  wire::Header header;
  header.big_endian = message[0] == std::byte{'B'};
  header.signature = "ua(yv)";
  wire::Reader reader({header, message.first(end).subspan(wire::serial_offset)}, {});
  reader.readUint32();
  reader.enterArray("(yv)");
  Fields fields;
  while (!reader.atEnd()) {
    reader.enterStruct();
    Field& field = fields.list.emplace_back(Field{reader.readByte(), {}, {}});
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
  fields.malformed = reader.fault() != wire::Fault::none;
  return fields;
}

template <class Test>
bool anyField(const Judged& judged, Test test) {
  const Fields fields = fieldsOf(judged.bytes);
  return std::any_of(fields.list.begin(), fields.list.end(), test);
}

constexpr auto last_known = static_cast<std::uint8_t>(HeaderField::descriptors);

/// The value of a field that nobody knows, such as a variant without a type.
bool hasAMalformedUnknownField(const Judged& judged) {
  const Fields fields = fieldsOf(judged.bytes);
  return fields.malformed && !fields.list.empty() && fields.list.back().code > last_known;
}

bool bodyBreaksOnly(const Judged& judged, const Overlooked& overlooked) {
  return judged.message && !judged.accepted && isBodyValidBut(*judged.message, overlooked);
}

bool namesADescriptorThatDidNotCome(const Judged& judged) {
  return bodyBreaksOnly(judged, {.descriptors = true});
}

/// ":1".
bool hasAUniqueNameOfOneElement(const Judged& judged) {
  return anyField(judged, [](const Field& field) {
    const bool is_name = field.code == static_cast<std::uint8_t>(HeaderField::destination) ||
                         field.code == static_cast<std::uint8_t>(HeaderField::sender);
    return is_name && field.text.starts_with(':') && field.text.find('.') == std::string_view::npos;
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

bool hasAnUnknownFieldOfAContainerType(const Judged& judged) {
  return anyField(judged, [](const Field& field) {
    return field.code > last_known && !field.type.empty() && !wire::isBasicType(field.type.front());
  });
}

/// Puts a letter where a member begins with a digit.
void repairMember(Bytes message, std::vector<std::byte>& repaired) {
  for (const Field& field : fieldsOf(message).list) {
    const bool is_member = field.code == static_cast<std::uint8_t>(HeaderField::member);
    if (!is_member || field.text.empty() || field.text[0] < '0' || field.text[0] > '9') continue;
    const auto* const first = reinterpret_cast<const std::byte*>(field.text.data());
    repaired[static_cast<std::size_t>(first - message.data())] = std::byte{'M'};
  }
}

/// The message with these rules of the header kept: the type is not 0, the version is that of the protocol,
/// the padding behind the fields is zero, a member begins with no digit, and a body has a signature.
std::vector<std::byte> withRepairedHeader(Bytes message) {
  std::vector<std::byte> repaired(message.begin(), message.end());
  const std::size_t fields_end = wire::fixed_header_size + numberAt(message, wire::fields_length_offset);
  const std::size_t body_at = (fields_end + 7) / 8 * 8;
  if (message.size() < body_at) return repaired;
  repairMember(message, repaired);
  constexpr std::size_t type_offset = 1;
  constexpr std::byte unknown_type{9};
  if (message[type_offset] == std::byte{0}) repaired[type_offset] = unknown_type;
  constexpr std::size_t version_offset = 3;
  if (message[version_offset] != std::byte{0}) repaired[version_offset] = std::byte{wire::protocol_version};
  std::fill(repaired.begin() + static_cast<std::ptrdiff_t>(fields_end),
            repaired.begin() + static_cast<std::ptrdiff_t>(body_at), std::byte{0});
  const bool has_signature = anyField(Judged{message, {}, false}, [](const Field& field) {
    return field.code == static_cast<std::uint8_t>(HeaderField::signature) && !field.text.empty();
  });
  if (has_signature) return repaired;
  repaired.resize(body_at);
  std::fill_n(repaired.begin() + wire::body_length_offset, 4, std::byte{0});
  return repaired;
}

/// The header breaks nothing but these rules, and the body nothing but those that sdBusMayAccept names.
bool headerBreaksOnlyWhatSdBusOverlooks(const Judged& judged, const Overlooked& overlooked) {
  if (judged.message) return false;
  const std::vector<std::byte> repaired = withRepairedHeader(judged.bytes);
  const auto message = wire::parseMessage(repaired);
  return message && message->header.descriptors == 0 && isBodyValidBut(*message, overlooked);
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
  return namesADescriptorThatDidNotCome(judged) || hasAUniqueNameOfOneElement(judged);
}

bool sdBusMayRefuse(const Judged& judged) {
  return hasAnUnknownFieldOfAContainerType(judged) || hasANoncharacter(judged);
}

bool sdBusMayAccept(const Judged& judged) {
  constexpr Overlooked by_sd_bus{.booleans = true, .rest = true, .depth = true, .entries = true};
  return bodyBreaksOnly(judged, by_sd_bus) || headerBreaksOnlyWhatSdBusOverlooks(judged, by_sd_bus) ||
         hasAMalformedUnknownField(judged);
}

}  // namespace kelvane::fuzz
