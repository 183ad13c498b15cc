#include "platform/wire/reader.h"

#include <bit>
#include <type_traits>
#include <utility>

#include "platform/foundation/utf8.h"
#include "platform/wire/byte_order.h"
#include "platform/wire/names.h"
#include "platform/wire/signature.h"

namespace kelvane::wire {
namespace {

template <std::size_t size>
struct UnsignedOf;
template <>
struct UnsignedOf<1> {
  using Type = std::uint8_t;
};
template <>
struct UnsignedOf<2> {
  using Type = std::uint16_t;
};
template <>
struct UnsignedOf<4> {
  using Type = std::uint32_t;
};
template <>
struct UnsignedOf<8> {
  using Type = std::uint64_t;
};

/// Whether any bytes of the type's size are a value of it.
bool isPlainNumber(char type) {
  return isBasicType(type) && type != 'b' && type != 'h' && type != 's' && type != 'o' && type != 'g';
}

}  // namespace

Reader::Reader(const Message& message, std::span<FileDescriptor> descriptors)
    : Reader(message, descriptors, descriptors.size()) {}

Reader::Reader(const Message& message, std::span<FileDescriptor> descriptors, std::size_t descriptor_count)
    : bytes_(message.body),
      descriptors_(descriptors),
      descriptor_count_(descriptor_count),
      swapped_(message.header.big_endian != machine_is_big_endian) {
  const std::string_view types = message.header.signature;
  frames_[0] = {types.data(), types.data() + types.size(), nullptr, bytes_.size(), '\0'};
}

// --- where the cursor stands ---

std::string_view Reader::nextCompleteType() const {
  if (atEnd()) return {};
  const Frame& frame = frames_[depth_];
  const std::string_view types(frame.next, static_cast<std::size_t>(frame.types_end - frame.next));
  return types.substr(0, completeTypeLength(types));
}

/// From the first fault on there is an empty body.
void Reader::fail(Fault fault) {
  if (fault_ == Fault::none) fault_ = fault;
  depth_ = 0;
  frames_[0] = {nullptr, nullptr, nullptr, position_, '\0'};
}

bool Reader::passPadding(std::size_t alignment) {
  const std::size_t end = aligned(position_, alignment);
  bool valid = end <= top().limit;
  for (; valid && position_ < end; ++position_) valid = bytes_[position_] == std::byte{0};
  return valid || failWith(Fault::malformed);
}

// --- basic values ---

template <class Number>
Number Reader::load() {
  using Unsigned = typename UnsignedOf<sizeof(Number)>::Type;
  if (!align(sizeof(Number)) || !hasRoom(sizeof(Number))) return Number{};
  const auto number = loadUnsigned<Unsigned>(bytes_.data() + position_, swapped_);
  position_ += sizeof(Number);
  return std::bit_cast<Number>(number);
}

template <class Number>
Number Reader::readNumber(char type) {
  return takeBasicType(type) ? load<Number>() : Number{};
}

std::uint8_t Reader::readByte() { return readNumber<std::uint8_t>('y'); }
std::int16_t Reader::readInt16() { return readNumber<std::int16_t>('n'); }
std::uint16_t Reader::readUint16() { return readNumber<std::uint16_t>('q'); }
std::int32_t Reader::readInt32() { return readNumber<std::int32_t>('i'); }
std::uint32_t Reader::readUint32() { return readNumber<std::uint32_t>('u'); }
std::int64_t Reader::readInt64() { return readNumber<std::int64_t>('x'); }
std::uint64_t Reader::readUint64() { return readNumber<std::uint64_t>('t'); }
double Reader::readDouble() { return readNumber<double>('d'); }

bool Reader::readBoolean() {
  const auto number = readNumber<std::uint32_t>('b');
  if (number > 1) fail(Fault::malformed);
  return number == 1;
}

/// This many bytes, and the NUL that ends each text.
std::string_view Reader::readText(std::size_t length) {
  if (!hasRoom(length + 1)) return {};
  const auto* text = reinterpret_cast<const char*>(bytes_.data() + position_);
  if (text[length] != '\0') {
    fail(Fault::malformed);
    return {};
  }
  position_ += length + 1;
  return {text, length};
}

std::string_view Reader::readLongText(char type) {
  if (!takeBasicType(type)) return {};
  const auto length = load<std::uint32_t>();
  return fault_ == Fault::none ? readText(length) : std::string_view();
}

std::string_view Reader::readShortText() {
  const auto length = load<std::uint8_t>();
  return fault_ == Fault::none ? readText(length) : std::string_view();
}

std::string_view Reader::readString() {
  const std::string_view text = readLongText('s');
  if (isMessageText(text)) return text;
  fail(Fault::malformed);
  return {};
}

std::string_view Reader::readObjectPath() {
  const std::string_view path = readLongText('o');
  if (fault_ == Fault::none && isObjectPath(path)) return path;
  fail(Fault::malformed);
  return {};
}

std::string_view Reader::readSignature() {
  const std::string_view signature = takeBasicType('g') ? readShortText() : std::string_view();
  if (isSignature(signature)) return signature;
  fail(Fault::malformed);
  return {};
}

std::uint32_t Reader::readDescriptorIndex() {
  const auto index = readNumber<std::uint32_t>('h');
  if (index >= descriptor_count_) fail(Fault::malformed);
  return index;
}

FileDescriptor Reader::takeDescriptor() {
  const std::uint32_t index = readDescriptorIndex();
  if (fault_ != Fault::none) return {};
  FileDescriptor taken = std::move(descriptors_[index]);
  if (!taken) fail(Fault::unusable);
  return taken;
}

// --- containers ---

bool Reader::push(char kind, const char* types, const char* types_end, std::size_t limit) {
  if (depth_ == deepest_containers) return failWith(Fault::malformed);
  frames_[++depth_] = {types, types_end, nullptr, limit, kind};
  return true;
}

/// Reads the length in front of an array's elements, and finds the first one.
bool Reader::beginArray(char element, std::size_t& size) {
  size = load<std::uint32_t>();
  if (fault_ != Fault::none || !align(alignmentOf(element))) return false;
  return (size <= longest_array && size <= top().limit - position_) || failWith(Fault::malformed);
}

bool Reader::enterArray(std::string_view element) {
  if (!expect('a')) return false;
  const Frame& outer = top();
  const char* const types = outer.next + 1;
  if (!std::string_view(types, static_cast<std::size_t>(outer.types_end - types)).starts_with(element)) {
    return failWith(Fault::mismatched);
  }
  const char* const types_end = outer.types_end;
  std::size_t size = 0;
  if (!beginArray(*types, size) || !push('a', types, types_end, position_ + size)) return false;
  if (!element.empty()) top().element_end = types + element.size();
  return true;
}

std::span<const std::byte> Reader::readBytes() {
  if (!enterArray("y")) return {};
  const Bytes bytes = bytes_.subspan(position_, top().limit - position_);
  position_ = top().limit;
  leave();
  return bytes;
}

bool Reader::enterStruct() {
  if (!expect('(') || !align(8)) return false;
  return push('(', top().next + 1, top().types_end, top().limit);
}

bool Reader::enterEntry() {
  if (!expect('{') || !align(8)) return false;
  return push('{', top().next + 1, top().types_end, top().limit);
}

bool Reader::enterVariant() {
  if (!takeBasicType('v')) return false;
  const std::string_view type = readShortText();
  if (fault_ != Fault::none) return false;
  if (!isCompleteType(type)) return failWith(Fault::malformed);
  return push('v', type.data(), type.data() + type.size(), top().limit);
}

void Reader::leave() {
  if (depth_ == 0 || !atEnd()) return fail(Fault::mismatched);
  const Frame& inner = top();
  const char* end = inner.next + 1;  // past the bracket
  if (inner.kind == 'a') {
    const std::string_view types(inner.next, static_cast<std::size_t>(inner.types_end - inner.next));
    end = inner.element_end != nullptr ? inner.element_end : inner.next + completeTypeLength(types);
  }
  const bool is_variant = inner.kind == 'v';
  --depth_;
  if (!is_variant) passType(end);
}

// --- values that nobody reads ---

void Reader::skipContainer() {
  while (!atEnd()) skip();
  leave();
}

void Reader::skipArray() {
  if (!enterArray()) return;
  const Frame& array = top();
  if (isPlainNumber(*array.next)) {
    if ((array.limit - position_) % alignmentOf(*array.next) != 0) return fail(Fault::malformed);
    position_ = array.limit;
  }
  skipContainer();
}

void Reader::skip() {
  switch (nextType()) {
    case 'y':
      readByte();
      break;
    case 'b':
      readBoolean();
      break;
    case 'n':
    case 'q':
      static_cast<void>(readNumber<std::uint16_t>(nextType()));
      break;
    case 'i':
    case 'u':
      static_cast<void>(readNumber<std::uint32_t>(nextType()));
      break;
    case 'x':
    case 't':
    case 'd':
      static_cast<void>(readNumber<std::uint64_t>(nextType()));
      break;
    case 's':
      readString();
      break;
    case 'o':
      readObjectPath();
      break;
    case 'g':
      readSignature();
      break;
    case 'h':
      static_cast<void>(readDescriptorIndex());
      break;
    case 'a':
      skipArray();
      break;
    case '(':
      if (enterStruct()) skipContainer();
      break;
    case '{':
      if (enterEntry()) skipContainer();
      break;
    case 'v':
      if (enterVariant()) skipContainer();
      break;
    default:
      fail(Fault::mismatched);
  }
}

bool Reader::finish() {
  if (depth_ > 0 || !atEnd()) fail(Fault::mismatched);
  if (position_ != bytes_.size()) fail(Fault::malformed);
  return fault_ == Fault::none;
}

bool isBodyValid(const Message& message, std::size_t descriptors) {
  Reader reader(message, {}, descriptors);
  while (!reader.atEnd()) reader.skip();
  return reader.finish();
}

}  // namespace kelvane::wire
