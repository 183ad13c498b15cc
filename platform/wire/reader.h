#pragma once

// Reads the body of a message strictly: whatever D-Bus forbids is a fault, and nothing is repaired.
//
// A reader is one cursor. It reads the values in the order of the signature; `enter...` enters a container,
// and `leave` leaves it, only at its end. After the first fault every value reads as zero or empty and
// `atEnd` is true, so callers check once, after the last value. Returned strings and spans point into the
// message's bytes. One thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/header.h"
#include "platform/wire/protocol.h"

namespace kelvane::wire {

class FieldReader;

enum class Fault : std::uint8_t {
  none,
  malformed,   // the bytes break the protocol; the connection that sent them should end
  mismatched,  // well-formed so far, but not of the requested type
  unusable,    // well-formed, but the caller cannot use it (`refuse`)
  excessive,   // well-formed, but it exceeds what the caller allows
};

class Reader {
 public:
  /// `descriptors` are those that came with the message, in order; a value of type "h" refers to one of them.
  /// All arguments must outlive the reader.
  Reader(const Message& message, std::span<FileDescriptor> descriptors);

  /// The code of the next value's type: 'y', 'a', '(', '{', 'v' ...; '\0' at the end of the container.
  [[nodiscard]] char nextType() const {
    const Frame& frame = frames_[depth_];
    if (isExhausted(frame)) return '\0';
    const char type = *frame.next;
    return type == ')' || type == '}' ? '\0' : type;
  }
  /// The next value's complete type, such as "a{sv}"; empty at the end of the container.
  [[nodiscard]] std::string_view nextCompleteType() const;
  /// Whether the innermost container, or the body, has no further value. True after a fault.
  [[nodiscard]] bool atEnd() const { return nextType() == '\0'; }

  // Each reads a value of exactly this type; any other type is Fault::mismatched.
  std::uint8_t readByte();
  bool readBoolean();
  std::int16_t readInt16();
  std::uint16_t readUint16();
  std::int32_t readInt32();
  std::uint32_t readUint32();
  std::int64_t readInt64();
  std::uint64_t readUint64();
  double readDouble();
  std::string_view readString();      // s: UTF-8 without NUL
  std::string_view readObjectPath();  // o
  std::string_view readSignature();   // g
  /// Reads a whole array of bytes ("ay").
  std::span<const std::byte> readBytes();
  /// Takes the descriptor that a value of type "h" refers to. Empty, with Fault::unusable, if an earlier
  /// value has taken it. An index without a descriptor is Fault::malformed.
  FileDescriptor takeDescriptor();

  /// `element` is the expected element type, or empty for any. For a dictionary it is an entry type such as
  /// "{sv}".
  bool enterArray(std::string_view element = {});
  bool enterStruct();
  bool enterEntry();
  /// Enters a variant; its content is the next value.
  bool enterVariant();
  /// Leaves the innermost container. Values left in it are Fault::mismatched.
  void leave();

  /// Validates and skips the next value.
  void skip();
  /// For values that the caller cannot use.
  void refuse(Fault why = Fault::unusable) { fail(why); }

  [[nodiscard]] Fault fault() const { return fault_; }
  /// Call this after the last value: the body must end here. True if there was no fault.
  bool finish();

 private:
  friend std::optional<Message> parseMessage(Bytes);
  friend class FieldReader;  // of a header
  friend bool isBodyValid(const Message&, std::size_t);

  /// The body, or an entered container.
  struct Frame {
    const char* next;         // the next value's type; in an array the type of each element
    const char* types_end;    // the end of the signature that `next` points into
    const char* element_end;  // in an array: the end of the element's type, null before it is known
    std::size_t limit;        // no value extends beyond this
    char kind;                // '\0' for the body, 'a', '(', '{' or 'v'
  };

  Reader(const Message& message, std::span<FileDescriptor> descriptors, std::size_t descriptor_count);

  void fail(Fault fault);
  [[nodiscard]] Frame& top() { return frames_[depth_]; }
  bool failWith(Fault fault) {
    fail(fault);
    return false;
  }
  /// Whether no type or no byte is left; a struct or an entry ends with its bracket before that.
  [[nodiscard]] bool isExhausted(const Frame& frame) const {
    return frame.next == frame.types_end || (frame.kind == 'a' && position_ == frame.limit);
  }
  /// Whether the next value is of the type that begins with this code.
  [[nodiscard]] bool expect(char type) {
    return (!isExhausted(top()) && *top().next == type) || failWith(Fault::mismatched);
  }
  /// Advances past the type of the value just read, which ends at `end`.
  void passType(const char* end) {
    Frame& frame = top();
    (frame.kind == 'a' ? frame.element_end : frame.next) = end;
  }
  [[nodiscard]] bool takeBasicType(char type) {
    if (!expect(type)) return false;
    passType(top().next + 1);
    return true;
  }
  [[nodiscard]] bool align(std::size_t alignment) {
    return (position_ & (alignment - 1)) == 0 || passPadding(alignment);
  }
  [[nodiscard]] bool passPadding(std::size_t alignment);
  [[nodiscard]] bool hasRoom(std::size_t size) {
    return top().limit - position_ >= size || failWith(Fault::malformed);
  }
  [[nodiscard]] std::string_view readText(std::size_t length);
  [[nodiscard]] std::string_view readLongText(char type);
  [[nodiscard]] std::string_view readShortText();
  [[nodiscard]] std::uint32_t readDescriptorIndex();
  [[nodiscard]] bool beginArray(char element, std::size_t& size);
  [[nodiscard]] bool push(char kind, const char* types, const char* types_end, std::size_t limit);
  void skipArray();
  void skipContainer();
  template <class Number>
  [[nodiscard]] Number load();
  template <class Number>
  [[nodiscard]] Number readNumber(char type);

  Bytes bytes_;
  std::span<FileDescriptor> descriptors_;
  std::size_t descriptor_count_;
  std::size_t position_ = 0;
  std::size_t depth_ = 0;
  bool swapped_;  // the message is not in this machine's byte order
  Fault fault_ = Fault::none;
  std::array<Frame, deepest_containers + 1> frames_;  // up to `depth_`; left uninitialized beyond
};

/// Whether the whole body matches its signature. For messages whose body is not read to its end: a malformed
/// body ends the connection even if nobody uses the message.
[[nodiscard]] bool isBodyValid(const Message& message, std::size_t descriptors);

}  // namespace kelvane::wire
