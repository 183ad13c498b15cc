#include "platform/wire/writer.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/wire/byte_order.h"
#include "platform/wire/names.h"
#include "platform/wire/sendable_text.h"
#include "platform/wire/signature.h"

namespace kelvane::wire {
namespace {

constexpr std::size_t first_room = 512;
constexpr std::size_t most_kept = 256U << 10;

/// While a message is written its serial is zero: a type code of '\0', the end of an empty signature.
constexpr std::size_t empty_signature_at = serial_offset;

}  // namespace

Writer::Writer(Outgoing& message, const Header& header) : message_(message) {
  message.descriptors.clear();
  if (message.bytes.capacity() > most_kept) std::vector<std::byte>().swap(message.bytes);
  message.bytes.clear();
  message.bytes.resize(first_room);
  data_ = message.bytes.data();
  room_ = first_room;
  size_ = fixed_header_size;
  frames_[0] = {empty_signature_at, 0, 0, '\0'};
  data_[0] = std::byte{machine_is_big_endian ? 'B' : 'l'};
  data_[1] = std::byte{static_cast<std::uint8_t>(header.type)};
  data_[2] = std::byte{header.flags};
  data_[3] = std::byte{protocol_version};
  isHeaderValid(header) ? addFields(header) : fail(Fault::invalid);
  fields_end_ = size_;
  static_cast<void>(align(8));
  body_at_ = size_;
}

// --- room ---

/// After the first fault nothing is written, and the body appears empty.
void Writer::fail(Fault fault) {
  if (fault_ == Fault::none) fault_ = fault;
  depth_ = 0;
  frames_[0] = {empty_signature_at, 0, 0, '\0'};
  size_ = fixed_header_size;
}

bool Writer::grow(std::size_t size) {
  if (size > longest_protocol_message - size_) {
    fail(Fault::too_long);
    return false;
  }
  room_ = std::min(std::max(2 * room_, aligned(size_ + size, 8)), longest_protocol_message);
  message_.bytes.resize(room_);
  data_ = message_.bytes.data();
  return true;
}

void Writer::append(const void* from, std::size_t size) {
  if (!makeRoom(size)) return;
  if (size > 0) std::memcpy(data_ + size_, from, size);
  size_ += size;
}

// --- types ---

/// Reports a value whose type is not the next one in the signature, or a container that is not the innermost.
bool Writer::mismatch() {
  assert(fault_ != Fault::none && "the values do not follow the signature");
  fail(Fault::invalid);
  return false;
}

/// Whether the signature has `types` at `at`, and `end` behind them unless that is '\0'.
bool Writer::expectTypes(std::size_t at, std::string_view types, char end) {
  const std::string_view has(reinterpret_cast<const char*>(data_) + at,
                             std::min(size_ - at, types.size() + 1));
  const bool expected = has.starts_with(types) && (end == '\0' || has.back() == end);
  return (expected && !types.empty()) || mismatch();
}

bool Writer::push(char kind, std::size_t next) {
  if (depth_ == deepest_containers) fail(Fault::too_deep);
  if (fault_ != Fault::none) return false;
  frames_[++depth_] = {next, 0, 0, kind};
  return true;
}

// --- basic values ---

template <class Number>
void Writer::store(Number number) {
  const std::size_t padding = aligned(size_, sizeof number) - size_;
  if (!makeRoom(padding + sizeof number)) return;
  size_ += padding;
  std::memcpy(data_ + size_, &number, sizeof number);
  size_ += sizeof number;
}

template <class Number>
void Writer::writeNumber(char type, Number number) {
  if (!expect(type)) return;
  passType(1);
  store(number);
}

void Writer::writeByte(std::uint8_t value) { writeNumber('y', value); }
void Writer::writeBoolean(bool value) { writeNumber<std::uint32_t>('b', value ? 1 : 0); }
void Writer::writeInt16(std::int16_t value) { writeNumber('n', value); }
void Writer::writeUint16(std::uint16_t value) { writeNumber('q', value); }
void Writer::writeInt32(std::int32_t value) { writeNumber('i', value); }
void Writer::writeUint32(std::uint32_t value) { writeNumber('u', value); }
void Writer::writeInt64(std::int64_t value) { writeNumber('x', value); }
void Writer::writeUint64(std::uint64_t value) { writeNumber('t', value); }
void Writer::writeDouble(double value) { writeNumber('d', value); }

void Writer::appendText(std::string_view text) {
  if (!align(4) || !makeRoom(4 + text.size() + 1)) return;
  store(static_cast<std::uint32_t>(text.size()));
  text.copy(reinterpret_cast<char*>(data_ + size_), text.size());
  size_ += text.size() + 1;
}

void Writer::appendShortText(std::string_view text) {
  if (!makeRoom(1 + text.size() + 1)) return;
  data_[size_++] = static_cast<std::byte>(text.size());
  for (const char c : text) data_[size_++] = static_cast<std::byte>(c);
  ++size_;
}

void Writer::writeString(std::string_view text) {
  if (!expect('s')) return;
  passType(1);
  if (text.size() > longest_protocol_message) return fail(Fault::too_long);
  isSendable(text) ? appendText(text) : appendText(repairedText(text));
}

void Writer::writeObjectPath(std::string_view path) {
  if (!expect('o')) return;
  passType(1);
  isObjectPath(path) ? appendText(path) : fail(Fault::invalid);
}

void Writer::writeSignature(std::string_view signature) {
  if (!expect('g')) return;
  passType(1);
  isSignature(signature) ? appendShortText(signature) : fail(Fault::invalid);
}

void Writer::writeBytes(std::span<const std::byte> bytes) {
  openArray("y");
  if (fault_ != Fault::none) return;
  append(bytes.data(), bytes.size());
  closeArray();
}

void Writer::writeDescriptor(int descriptor) {
  if (!expect('h')) return;
  passType(1);
  if (message_.descriptors.size() == most_passed_descriptors) return fail(Fault::too_long);
  store(static_cast<std::uint32_t>(message_.descriptors.size()));
  message_.descriptors.push_back(descriptor);
}

// --- containers ---

void Writer::openArray(std::string_view element) {
  if (!expect('a') || !expectTypes(top().next + 1, element, '\0')) return;
  const std::size_t next = top().next + 1;
  passType(1 + element.size());
  store<std::uint32_t>(0);
  const std::size_t size_at = size_ - sizeof(std::uint32_t);
  if (!align(alignmentOf(element.front())) || !push('a', next)) return;
  top().size_at = size_at;
  top().elements_at = size_;
}

void Writer::closeArray() {
  if (top().kind != 'a') return static_cast<void>(mismatch());
  const std::size_t size = size_ - top().elements_at;
  if (size > longest_array) return fail(Fault::too_long);
  const auto length = static_cast<std::uint32_t>(size);
  std::memcpy(data_ + top().size_at, &length, sizeof length);
  --depth_;
}

void Writer::openStruct(std::string_view fields) {
  if (!expect('(') || !expectTypes(top().next + 1, fields, ')')) return;
  const std::size_t next = top().next + 1;
  passType(fields.size() + 2);
  if (align(8)) static_cast<void>(push('(', next));
}

void Writer::openEntry(std::string_view key_and_value) {
  if (!expect('{') || !expectTypes(top().next + 1, key_and_value, '}')) return;
  const std::size_t next = top().next + 1;
  if (align(8)) static_cast<void>(push('{', next));
}

void Writer::openVariant(std::string_view type) {
  if (!expect('v')) return;
  if (!isCompleteType(type)) return fail(Fault::invalid);
  passType(1);
  const std::size_t next = size_ + 1;
  appendShortText(type);
  if (fault_ == Fault::none) static_cast<void>(push('v', next));
}

void Writer::close(char kind, char end) {
  if (top().kind != kind || nextType() != end) return static_cast<void>(mismatch());
  --depth_;
}
void Writer::closeStruct() { close('(', ')'); }
void Writer::closeEntry() { close('{', '}'); }
void Writer::closeVariant() { close('v', '\0'); }

// --- the header ---

void Writer::beginField(HeaderField field, char type) {
  if (!align(8)) return;
  store(static_cast<std::uint8_t>(field));
  appendShortText({&type, 1});
}

void Writer::addTextField(HeaderField field, char type, std::string_view text) {
  if (text.empty()) return;
  beginField(field, type);
  appendText(text);
}

void Writer::addFields(const Header& header) {
  addTextField(HeaderField::path, 'o', header.path);
  addTextField(HeaderField::interface, 's', header.interface);
  addTextField(HeaderField::member, 's', header.member);
  addTextField(HeaderField::error_name, 's', header.error_name);
  addTextField(HeaderField::destination, 's', header.destination);
  addTextField(HeaderField::sender, 's', header.sender);
  if (header.reply_serial != 0) {
    beginField(HeaderField::reply_serial, 'u');
    store(header.reply_serial);
  }
  if (!header.signature.empty()) {
    beginField(HeaderField::signature, 'g');
    frames_[0].next = size_ + 1;
    appendShortText(header.signature);
  }
}

/// The number of descriptors is known only at the end. Its field takes eight bytes before the body, so the
/// body moves.
void Writer::addDescriptorsField() {
  constexpr std::size_t field_size = 8;
  if (!makeRoom(field_size)) return;
  std::memmove(data_ + body_at_ + field_size, data_ + body_at_, size_ - body_at_);
  const std::size_t end = size_ + field_size;
  size_ = body_at_;
  beginField(HeaderField::descriptors, 'u');
  store(static_cast<std::uint32_t>(message_.descriptors.size()));
  body_at_ = fields_end_ = size_;
  size_ = end;
}

Writer::Fault Writer::finish() {
  if (fault_ == Fault::none && (depth_ > 0 || nextType() != '\0')) mismatch();
  if (fault_ == Fault::none && !message_.descriptors.empty()) addDescriptorsField();
  if (fields_end_ > fixed_header_size + longest_array) fail(Fault::too_long);
  if (fault_ != Fault::none) {
    message_.bytes.clear();
    message_.descriptors.clear();
    return fault_;
  }
  const auto body = static_cast<std::uint32_t>(size_ - body_at_);
  const auto fields = static_cast<std::uint32_t>(fields_end_ - fixed_header_size);
  std::memcpy(data_ + body_length_offset, &body, sizeof body);
  std::memcpy(data_ + fields_length_offset, &fields, sizeof fields);
  message_.bytes.resize(size_);
  return Fault::none;
}

void setSerial(Outgoing& message, std::uint32_t serial) {
  std::memcpy(message.bytes.data() + serial_offset, &serial, sizeof serial);
}

}  // namespace kelvane::wire
