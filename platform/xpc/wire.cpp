#include "platform/xpc/wire.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kelvane::xpc {
namespace {

// A variant and what it holds are one level each, for writing as for reading: what can be sent can be read.
constexpr int deepest = 2 * (static_cast<int>(most_nested) + 1);

// --- writing ---

constexpr const char* replacement = "\xEF\xBF\xBD";  // U+FFFD

/// The length of the valid UTF-8 sequence at `at`, or 0.
std::size_t sequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned lead = byte(at);
  if (lead == 0) return 0;
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool outside = (lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F);
  return overlong || outside ? 0 : length;
}

/// D-Bus strings are UTF-8 without NUL. What is neither travels as the replacement character.
std::string repaired(const std::string& text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = sequenceLength(text, at);
    if (length == 0) {
      out += replacement;
      ++at;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

int writeString(sd_bus_message* message, const std::string& text) {
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result): it is the terminator that is looked for
  if (std::memchr(text.data(), '\0', text.size()) == nullptr) {
    const int r = sd_bus_message_append_basic(message, 's', text.c_str());
    if (r != -EINVAL) return r;
  }
  return sd_bus_message_append_basic(message, 's', repaired(text).c_str());
}

int writeVariant(sd_bus_message* message, const Value& value, int depth);

int writeDictionary(sd_bus_message* message, const Dictionary& dictionary, int depth) {
  int r = sd_bus_message_open_container(message, 'a', "{sv}");
  for (auto entry = dictionary.begin(); r >= 0 && entry != dictionary.end(); ++entry) {
    r = sd_bus_message_open_container(message, 'e', "sv");
    if (r >= 0) r = writeString(message, entry->first);
    if (r >= 0) r = writeVariant(message, entry->second, depth + 1);
    if (r >= 0) r = sd_bus_message_close_container(message);
  }
  return r < 0 ? r : sd_bus_message_close_container(message);
}

int writeArray(sd_bus_message* message, const Array& array, int depth) {
  int r = sd_bus_message_open_container(message, 'a', "v");
  for (auto element = array.begin(); r >= 0 && element != array.end(); ++element) {
    r = writeVariant(message, *element, depth + 1);
  }
  return r < 0 ? r : sd_bus_message_close_container(message);
}

struct VariantWriter {
  sd_bus_message* message;
  int depth;

  template <class Write>
  int in(const char* signature, Write write) const {
    int r = sd_bus_message_open_container(message, 'v', signature);
    if (r >= 0) r = write();
    return r < 0 ? r : sd_bus_message_close_container(message);
  }
  int basic(char type, const void* value) const { return sd_bus_message_append_basic(message, type, value); }

  int operator()(std::monostate) const { return -EINVAL; }
  int operator()(bool boolean) const {
    const int wide = boolean ? 1 : 0;
    return in("b", [&] { return basic('b', &wide); });
  }
  int operator()(std::int64_t number) const {
    return in("x", [&] { return basic('x', &number); });
  }
  int operator()(std::uint64_t number) const {
    return in("t", [&] { return basic('t', &number); });
  }
  int operator()(double number) const {
    return in("d", [&] { return basic('d', &number); });
  }
  int operator()(const foundation::CopyOnWrite<std::string>& text) const {
    return in("s", [&] { return writeString(message, *text); });
  }
  int operator()(const Data& data) const {
    return in("ay", [&] {
      return sd_bus_message_append_array(message, 'y', data.bytes().data(), data.bytes().size());
    });
  }
  int operator()(Date date) const {
    return in("(x)", [&] { return sd_bus_message_append(message, "(x)", date.microseconds); });
  }
  int operator()(const Array& array) const {
    return in("av", [&] { return writeArray(message, array, depth + 1); });
  }
  int operator()(const Dictionary& dictionary) const {
    return in("a{sv}", [&] { return writeDictionary(message, dictionary, depth + 1); });
  }
};

int writeVariant(sd_bus_message* message, const Value& value, int depth) {
  if (depth >= deepest) return -ELOOP;
  return std::visit(VariantWriter{message, depth}, value.held());
}

// --- reading ---

int readOne(sd_bus_message* message, Value& value, int depth);

template <class Number, class As = Number>
int readNumber(sd_bus_message* message, char type, Value& value) {
  Number number{};
  const int r = sd_bus_message_read_basic(message, type, &number);
  value = static_cast<As>(number);
  return r;
}

int readText(sd_bus_message* message, char type, std::string& text) {
  const char* read = nullptr;
  const int r = sd_bus_message_read_basic(message, type, &read);
  if (r > 0) text = read;
  return r;
}

/// `entry` is the signature of one entry, without its braces.
int readEntries(sd_bus_message* message, const std::string& entry, Dictionary& dictionary, int depth) {
  const char type = entry.empty() ? '\0' : entry.front();
  if (type != 's' && type != 'o' && type != 'g') return -EBADMSG;
  for (;;) {
    const int at_end = sd_bus_message_at_end(message, 0);
    if (at_end != 0) return at_end < 0 ? at_end : 0;
    int r = sd_bus_message_enter_container(message, 'e', entry.c_str());
    std::string key;
    Value value;
    if (r >= 0) r = readText(message, type, key);
    if (r >= 0) r = readOne(message, value, depth + 1);
    if (r >= 0) r = sd_bus_message_exit_container(message);
    if (r < 0) return r;
    dictionary.set(key, std::move(value));
  }
}

int readElements(sd_bus_message* message, Array& array, int depth) {
  for (;;) {
    const int at_end = sd_bus_message_at_end(message, 0);
    if (at_end != 0) return at_end < 0 ? at_end : 0;
    Value element;
    const int r = readOne(message, element, depth + 1);
    if (r < 0) return r;
    array.append(std::move(element));
  }
}

int readArray(sd_bus_message* message, const char* contents, Value& value, int depth) {
  if (std::strcmp(contents, "y") == 0) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    const int r = sd_bus_message_read_array(message, 'y', &bytes, &size);
    if (r < 0) return r;
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    value = Data(Data::Bytes(first, first + size));
    return 1;
  }
  const std::string element = contents;
  int r = sd_bus_message_enter_container(message, 'a', element.c_str());
  if (r < 0) return r;
  if (element.front() == '{') {
    Dictionary dictionary;
    const std::string entry = element.substr(1, element.size() - 2);
    r = readEntries(message, entry, dictionary, depth);
    value = std::move(dictionary);
  } else {
    Array array;
    r = readElements(message, array, depth);
    value = std::move(array);
  }
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int readDate(sd_bus_message* message, const char* contents, Value& value) {
  if (std::strcmp(contents, "x") != 0) return -EBADMSG;
  std::int64_t microseconds = 0;
  const int r = sd_bus_message_read(message, "(x)", &microseconds);
  value = Date{microseconds};
  return r;
}

bool isBasic(char type) { return type != '\0' && std::strchr("ynqiuxtdbsog", type) != nullptr; }

int readBasic(sd_bus_message* message, char type, Value& value) {
  switch (type) {
    case 'y':
      return readNumber<std::uint8_t, std::uint64_t>(message, type, value);
    case 'n':
      return readNumber<std::int16_t, std::int64_t>(message, type, value);
    case 'q':
      return readNumber<std::uint16_t, std::uint64_t>(message, type, value);
    case 'i':
      return readNumber<std::int32_t, std::int64_t>(message, type, value);
    case 'u':
      return readNumber<std::uint32_t, std::uint64_t>(message, type, value);
    case 'x':
      return readNumber<std::int64_t>(message, type, value);
    case 't':
      return readNumber<std::uint64_t>(message, type, value);
    case 'd':
      return readNumber<double>(message, type, value);
    case 'b':
      return readNumber<int, bool>(message, type, value);
    default: {
      std::string text;
      const int r = readText(message, type, text);
      value = std::move(text);
      return r;
    }
  }
}

int readVariant(sd_bus_message* message, const char* contents, Value& value, int depth) {
  const char type = contents[0];
  const bool basic = isBasic(type) && contents[1] == '\0' && depth < deepest;
  int r = sd_bus_message_enter_container(message, 'v', contents);
  if (r >= 0) r = basic ? readBasic(message, type, value) : readOne(message, value, depth + 1);
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

/// Reads whatever stands next.
int readOne(sd_bus_message* message, Value& value, int depth) {
  if (depth > deepest) return -ELOOP;
  char type = 0;
  const char* contents = nullptr;
  const int r = sd_bus_message_peek_type(message, &type, &contents);
  if (r <= 0) return r < 0 ? r : -EBADMSG;
  if (isBasic(type)) return readBasic(message, type, value);
  if (type == 'v') return readVariant(message, contents, value, depth);
  if (type == 'a') return readArray(message, contents, value, depth);
  if (type == 'r') return readDate(message, contents, value);
  return -EBADMSG;  // descriptors have no place in a property list
}

}  // namespace

int Wire<std::int32_t>::write(sd_bus_message* message, std::int32_t number) {
  return sd_bus_message_append_basic(message, 'i', &number);
}
int Wire<std::int32_t>::read(sd_bus_message* message, std::int32_t& number) {
  return sd_bus_message_read_basic(message, 'i', &number);
}

int Wire<std::uint32_t>::write(sd_bus_message* message, std::uint32_t number) {
  return sd_bus_message_append_basic(message, 'u', &number);
}
int Wire<std::uint32_t>::read(sd_bus_message* message, std::uint32_t& number) {
  return sd_bus_message_read_basic(message, 'u', &number);
}

int Wire<std::string>::write(sd_bus_message* message, const std::string& text) {
  return writeString(message, text);
}
int Wire<std::string>::read(sd_bus_message* message, std::string& text) {
  return readText(message, 's', text);
}

int Wire<Endpoint>::write(sd_bus_message* message, const Endpoint& endpoint) {
  const int descriptor = endpoint.descriptor();
  return sd_bus_message_append_basic(message, 'h', &descriptor);
}
int Wire<Endpoint>::read(sd_bus_message* message, Endpoint& endpoint) {
  int descriptor = -1;
  const int r = sd_bus_message_read_basic(message, 'h', &descriptor);
  if (r < 0) return r;
  // The message keeps its own descriptor and closes it when it goes.
  auto adopted = Endpoint::adopt(FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3)));
  if (!adopted) return -ENOTSOCK;
  endpoint = std::move(*adopted);
  return r;
}

int Wire<Dictionary>::write(sd_bus_message* message, const Dictionary& dictionary) {
  return writeDictionary(message, dictionary, 0);
}
int Wire<Dictionary>::read(sd_bus_message* message, Dictionary& dictionary) {
  int r = sd_bus_message_enter_container(message, 'a', "{sv}");
  if (r >= 0) r = readEntries(message, "sv", dictionary, 0);
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int Wire<std::optional<Dictionary>>::write(sd_bus_message* message,
                                           const std::optional<Dictionary>& dictionary) {
  int r = sd_bus_message_open_container(message, 'a', "a{sv}");
  if (r >= 0 && dictionary) r = writeDictionary(message, *dictionary, 0);
  return r < 0 ? r : sd_bus_message_close_container(message);
}
int Wire<std::optional<Dictionary>>::read(sd_bus_message* message, std::optional<Dictionary>& dictionary) {
  int r = sd_bus_message_enter_container(message, 'a', "a{sv}");
  // The last of several counts; one or none is what a peer sends that keeps to the protocol.
  while (r >= 0 && sd_bus_message_at_end(message, 0) == 0)
    r = Wire<Dictionary>::read(message, dictionary.emplace());
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

int Wire<Anything>::write(sd_bus_message* message, const Anything& anything) {
  return writeVariant(message, anything.value, 0);
}
int Wire<Anything>::read(sd_bus_message* message, Anything& anything) {
  return readOne(message, anything.value, 0);
}

int Wire<Value>::write(sd_bus_message* message, const Value& value) {
  return writeArray(message, value.isNothing() ? Array() : Array{value}, -1);
}
int Wire<Value>::read(sd_bus_message* message, Value& value) {
  int r = sd_bus_message_enter_container(message, 'a', "v");
  while (r >= 0 && sd_bus_message_at_end(message, 0) == 0) r = readOne(message, value, 0);
  return r < 0 ? r : sd_bus_message_exit_container(message);
}

}  // namespace kelvane::xpc
