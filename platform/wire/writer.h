#pragma once

// Builds one message, in the machine's byte order. Its signature is given first, and the values are written
// in that order; writing another type than the signature has next is a programming error (fatal in debug
// builds), because signatures are derived from C++ types. What D-Bus forbids in values is repaired (text) or
// makes the message unsendable (`fault`): nothing invalid ever leaves. One thread at a time.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/wire/header.h"

namespace kelvane::wire {

/// A message that is ready to be sent but for its serial.
struct Outgoing {
  std::vector<std::byte> bytes;
  /// To be passed along, borrowed: the owner keeps them open until the transport has taken the message.
  std::vector<int> descriptors;
};

class Writer {
 public:
  enum class Fault : std::uint8_t { none, too_long, too_deep };

  /// `header.serial`, `header.descriptors` and `header.big_endian` are ignored; the signature is copied.
  /// `message` is cleared and written to; it keeps its memory, so that one per thread serves many messages.
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
  /// What is not UTF-8, NUL included, and noncharacters (U+FFFE, U+FFFF and the like, which some libraries
  /// refuse) are written as U+FFFD.
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

  /// Completes the header. Nothing may be written afterwards.
  Fault finish();

 private:
  // The implementation is the codec's.
  Outgoing& message_;
  Fault fault_ = Fault::none;
};

/// Puts the serial into a finished message.
void setSerial(Outgoing& message, std::uint32_t serial);

}  // namespace kelvane::wire
