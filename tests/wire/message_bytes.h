#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/wire/header.h"

namespace kelvane::wire {

enum class ByteOrder { little, big };
inline constexpr ByteOrder both_orders[] = {ByteOrder::little, ByteOrder::big};
std::ostream& operator<<(std::ostream& out, ByteOrder order);
[[nodiscard]] ByteOrder machineOrder();

/// Bytes composed by hand from the D-Bus documents alone, to check the codec against.
class MessageBytes {
 public:
  explicit MessageBytes(ByteOrder order = ByteOrder::little) : order_(order) {}

  MessageBytes& byte(unsigned value) { return number(value, 1); }
  MessageBytes& number16(std::uint16_t value) { return align(2).number(value, 2); }
  MessageBytes& number32(std::uint32_t value) { return align(4).number(value, 4); }
  MessageBytes& number64(std::uint64_t value) { return align(8).number(value, 8); }
  MessageBytes& text(std::string_view text) { return number32Of(text).raw(text).byte(0); }
  MessageBytes& signature(std::string_view text) {
    return byte(static_cast<unsigned>(text.size())).raw(text).byte(0);
  }
  MessageBytes& raw(std::string_view bytes);
  MessageBytes& zeros(std::size_t count);
  MessageBytes& align(std::size_t alignment);
  /// Writes over what is there.
  MessageBytes& put32(std::size_t at, std::uint32_t value);

  [[nodiscard]] Bytes bytes() const { return bytes_; }
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  [[nodiscard]] std::byte& operator[](std::size_t at) { return bytes_.at(at); }
  /// As the body of a message of this signature; valid as long as this is not changed.
  [[nodiscard]] Message asBody(std::string_view signature) const;

 private:
  MessageBytes& number(std::uint64_t value, unsigned size);
  MessageBytes& number32Of(std::string_view text) {
    return number32(static_cast<std::uint32_t>(text.size()));
  }

  const ByteOrder order_;
  std::vector<std::byte> bytes_;
};

/// From text such as "6c 01 00 01".
[[nodiscard]] std::vector<std::byte> fromHex(std::string_view text);

}  // namespace kelvane::wire
