#include "tests/wire/message_bytes.h"

#include <bit>
#include <sstream>

namespace kelvane::wire {

std::ostream& operator<<(std::ostream& out, ByteOrder order) {
  return out << (order == ByteOrder::big ? "big-endian" : "little-endian");
}

ByteOrder machineOrder() {
  return std::endian::native == std::endian::big ? ByteOrder::big : ByteOrder::little;
}

MessageBytes& MessageBytes::number(std::uint64_t value, unsigned size) {
  for (unsigned i = 0; i < size; ++i) {
    const unsigned shift = 8 * (order_ == ByteOrder::big ? size - 1 - i : i);
    bytes_.push_back(static_cast<std::byte>(value >> shift & 0xff));
  }
  return *this;
}

MessageBytes& MessageBytes::raw(std::string_view bytes) {
  for (const char c : bytes) bytes_.push_back(static_cast<std::byte>(c));
  return *this;
}

MessageBytes& MessageBytes::zeros(std::size_t count) {
  bytes_.resize(bytes_.size() + count);
  return *this;
}

MessageBytes& MessageBytes::align(std::size_t alignment) {
  while (bytes_.size() % alignment != 0) bytes_.push_back(std::byte{0});
  return *this;
}

MessageBytes& MessageBytes::put32(std::size_t at, std::uint32_t value) {
  MessageBytes number(order_);
  number.number32(value);
  for (const std::byte byte : number.bytes()) bytes_.at(at++) = byte;
  return *this;
}

Message MessageBytes::asBody(std::string_view signature) const {
  return {{.big_endian = order_ == ByteOrder::big, .signature = signature}, bytes_};
}

std::vector<std::byte> fromHex(std::string_view text) {
  std::vector<std::byte> bytes;
  std::istringstream in{std::string(text)};
  unsigned byte = 0;
  while (in >> std::hex >> byte) bytes.push_back(static_cast<std::byte>(byte));
  return bytes;
}

}  // namespace kelvane::wire
