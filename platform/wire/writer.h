#pragma once

// Builds one message, in the machine's byte order. Its signature is given first, and the values are written
// in that order; writing a value of another type is a programming error (fatal in debug builds), because
// signatures are derived from C++ types. Text that D-Bus forbids is repaired; any other forbidden value makes
// the message unsendable (`fault`). So no invalid message is ever sent. One thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/wire/byte_order.h"
#include "platform/wire/header.h"
#include "platform/wire/protocol.h"

namespace kelvane::wire {

/// A message that is complete except for its serial.
struct Outgoing {
  std::vector<std::byte> bytes;
  /// Descriptors to send, borrowed: the owner keeps them open until the transport has taken the message.
  std::vector<int> descriptors;
};

class Writer {
 public:
  enum class Fault : std::uint8_t {
    none,
    too_long,  // an array, the message, or the number of descriptors
    too_deep,  // containers
    invalid,   // a path, a signature or a name in the header that D-Bus forbids
  };

  /// `header.serial`, `header.descriptors` and `header.big_endian` are ignored; the signature is copied.
  /// `message` is cleared and written to. It keeps up to 256 KiB of memory, so that a thread can reuse one
  /// message.
  Writer(Outgoing& message, const Header& header);

  void writeByte(std::uint8_t value);
  void writeBoolean(bool value);
  void writeInt16(std::int16_t value);
  void writeUint16(std::uint16_t value);
  void writeInt32(std::int32_t value);
  void writeUint32(std::uint32_t value);
  void writeInt64(std::int64_t value);
  void writeUint64(std::uint64_t value);
  void writeDouble(double value);
  /// Text that may not be sent is repaired (sendable_text.h).
  void writeString(std::string_view text);
  void writeObjectPath(std::string_view path);
  void writeSignature(std::string_view signature);
  void writeBytes(std::span<const std::byte> bytes);  // "ay"
  void writeDescriptor(int descriptor);               // "h"; borrowed

  void openArray(std::string_view element);
  void closeArray();
  void openStruct(std::string_view fields);
  void closeStruct();
  void openEntry(std::string_view key_and_value);
  void closeEntry();
  void openVariant(std::string_view type);
  void closeVariant();

  /// Completes the header. Write nothing afterwards. After a fault the message is empty and must not be sent.
  Fault finish();

 private:
  /// The body, or an open container. Positions count from the message's first byte.
  struct Frame {
    std::size_t next;         // the next value's type; in an array the type of each element
    std::size_t size_at;      // in an array: its length
    std::size_t elements_at;  // in an array: its first element
    char kind;                // '\0' for the body, 'a', '(', '{' or 'v'
  };

  void fail(Fault fault);
  bool mismatch();
  [[nodiscard]] Frame& top() { return frames_[depth_]; }
  [[nodiscard]] char nextType() { return std::to_integer<char>(data_[top().next]); }
  [[nodiscard]] bool expect(char type) { return nextType() == type || mismatch(); }
  [[nodiscard]] bool expectTypes(std::size_t at, std::string_view types, char end);
  void passType(std::size_t length) {
    if (top().kind != 'a') top().next += length;
  }
  [[nodiscard]] bool push(char kind, std::size_t next);
  [[nodiscard]] bool makeRoom(std::size_t size) { return size <= room_ - size_ || grow(size); }
  [[nodiscard]] bool grow(std::size_t size);
  /// The skipped bytes are already zero.
  [[nodiscard]] bool align(std::size_t alignment) {
    const std::size_t at = aligned(size_, alignment);
    if (!makeRoom(at - size_)) return false;
    size_ = at;
    return true;
  }
  template <class Number>
  void store(Number number);
  template <class Number>
  void writeNumber(char type, Number number);
  void append(const void* from, std::size_t size);
  void appendText(std::string_view text);
  void appendShortText(std::string_view text);
  void beginField(HeaderField field, char type);
  void addTextField(HeaderField field, char type, std::string_view text);
  void addFields(const Header& header);
  void addDescriptorsField();
  void close(char kind, char end);

  Outgoing& message_;
  std::byte* data_ = nullptr;  // of the message's bytes; all zero from `size_` on
  std::size_t size_ = 0;       // what is written
  std::size_t room_ = 0;       // the size of the message's bytes
  std::size_t body_at_ = 0;
  std::size_t fields_end_ = 0;  // of the header, before its padding
  std::size_t depth_ = 0;
  Fault fault_ = Fault::none;
  std::array<Frame, deepest_containers + 1> frames_;  // up to `depth_`; left uninitialized beyond
};

/// Puts the serial into a finished message.
void setSerial(Outgoing& message, std::uint32_t serial);

}  // namespace kelvane::wire
