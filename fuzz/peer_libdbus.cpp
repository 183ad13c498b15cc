#include <dbus/dbus.h>

#include <bit>

#include "fuzz/body_text.h"
#include "fuzz/peers.h"

namespace kelvane::fuzz {
namespace {

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};

std::string orEmpty(const char* text) { return text == nullptr ? "" : text; }

std::string headerOf(DBusMessage* message) {
  HeaderFields header;
  header.type = static_cast<std::uint8_t>(dbus_message_get_type(message));
  header.serial = dbus_message_get_serial(message);
  header.reply_serial = dbus_message_get_reply_serial(message);
  header.expects_reply =
      header.type == DBUS_MESSAGE_TYPE_METHOD_CALL && dbus_message_get_no_reply(message) == FALSE;
  header.path = orEmpty(dbus_message_get_path(message));
  header.interface = orEmpty(dbus_message_get_interface(message));
  header.member = orEmpty(dbus_message_get_member(message));
  header.error_name = orEmpty(dbus_message_get_error_name(message));
  header.destination = orEmpty(dbus_message_get_destination(message));
  header.sender = orEmpty(dbus_message_get_sender(message));
  header.signature = dbus_message_get_signature(message);
  return headerText(header);
}

std::string bodyOf(DBusMessageIter& at);

std::string containerText(DBusMessageIter& at, char open, char close) {
  DBusMessageIter inside;
  dbus_message_iter_recurse(&at, &inside);
  return open + bodyOf(inside) + close;
}

std::string variantText(DBusMessageIter& at) {
  DBusMessageIter inside;
  dbus_message_iter_recurse(&at, &inside);
  char* const signature = dbus_message_iter_get_signature(&inside);
  const std::string type = signature;
  dbus_free(signature);
  return "<" + type + "  " + bodyOf(inside) + ">";
}

std::string basicText(DBusMessageIter& at, char type) {
  DBusBasicValue value{};
  dbus_message_iter_get_basic(&at, &value);
  switch (type) {
    case 'y':
      return numberText(type, value.byt);
    case 'n':
    case 'q':
      return numberText(type, value.u16);
    case 'b':
    case 'i':
    case 'u':
      return numberText(type, value.u32);
    case 'd':
      return numberText(type, std::bit_cast<std::uint64_t>(value.dbl));
    case 'x':
    case 't':
      return numberText(type, value.u64);
    default:
      return stringText(type, value.str);
  }
}

std::string bodyOf(DBusMessageIter& at) {
  std::string text;
  for (int type = 0; (type = dbus_message_iter_get_arg_type(&at)) != DBUS_TYPE_INVALID;
       dbus_message_iter_next(&at)) {
    if (type == DBUS_TYPE_ARRAY) {
      text += containerText(at, '[', ']');
    } else if (type == DBUS_TYPE_STRUCT) {
      text += containerText(at, '(', ')');
    } else if (type == DBUS_TYPE_DICT_ENTRY) {
      text += containerText(at, '{', '}');
    } else if (type == DBUS_TYPE_VARIANT) {
      text += variantText(at);
    } else {
      // What a descriptor is without one is not asked.
      text += type == DBUS_TYPE_UNIX_FD ? "h " : basicText(at, static_cast<char>(type));
    }
  }
  return text;
}

}  // namespace

std::optional<Opinion> opinionOfLibdbus(std::span<const std::uint8_t> message) {
  const auto* bytes = reinterpret_cast<const char*>(message.data());
  const std::unique_ptr<DBusMessage, Unref> read(
      dbus_message_demarshal(bytes, static_cast<int>(message.size()), nullptr));
  if (read == nullptr) return std::nullopt;
  DBusMessageIter at;
  dbus_message_iter_init(read.get(), &at);
  return Opinion{headerOf(read.get()), bodyOf(at)};
}

}  // namespace kelvane::fuzz
