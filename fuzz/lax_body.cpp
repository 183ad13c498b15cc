#include "fuzz/lax_body.h"

#include <string_view>

#include "platform/foundation/utf8.h"
#include "platform/wire/names.h"
#include "platform/wire/signature.h"

namespace kelvane::fuzz {
namespace {

class LaxReader {
 public:
  LaxReader(const wire::Message& message, const Overlooked& overlooked)
      : bytes_(message.body), big_endian_(message.header.big_endian), overlooked_(overlooked) {}

  bool values(std::string_view types, unsigned depth) {
    while (!types.empty()) {
      const std::size_t length = wire::completeTypeLength(types);
      if (!value(types.substr(0, length), depth)) return false;
      types.remove_prefix(length);
    }
    return true;
  }
  [[nodiscard]] bool isAtEnd() const { return at_ == bytes_.size(); }

 private:
  bool value(std::string_view type, unsigned depth) {
    if (!pad(wire::alignmentOf(type.front()))) return false;
    switch (type.front()) {
      case 's':
        return text(4) && isMessageText(text_);
      case 'o':
        return text(4) && wire::isObjectPath(text_);
      case 'g':
        return text(1) && wire::isSignature(text_);
      case 'b':
        return number(4) && number_ <= 1;
      case 'h':
        return number(4) && overlooked_.descriptors;
      case 'a':
        return isShallow(depth) && array(type.substr(1), depth + 1);
      case 'v':
        return isShallow(depth) && variant(depth + 1);
      case '(':
      case '{':
        return isShallow(depth) && values(type.substr(1, type.size() - 2), depth + 1);
      default:
        return number(wire::alignmentOf(type.front()));
    }
  }

  static bool isShallow(unsigned depth) { return depth < wire::deepest_containers; }

  bool pad(std::size_t alignment) {
    for (; at_ % alignment != 0; ++at_) {
      if (at_ == bytes_.size() || bytes_[at_] != std::byte{0}) return false;
    }
    return true;
  }

  bool number(std::size_t size) {
    if (bytes_.size() - at_ < size) return false;
    number_ = 0;
    for (std::size_t i = 0; i < size; ++i)
      number_ =
          number_ << 8U | std::to_integer<std::uint64_t>(bytes_[at_ + (big_endian_ ? i : size - 1 - i)]);
    at_ += size;
    return true;
  }

  bool text(std::size_t length_size) {
    if (!number(length_size) || number_ >= bytes_.size() - at_) return false;
    text_ = {reinterpret_cast<const char*>(bytes_.data()) + at_, static_cast<std::size_t>(number_)};
    at_ += text_.size() + 1;
    return bytes_[at_ - 1] == std::byte{0};
  }

  bool array(std::string_view element, unsigned depth) {
    if (!number(4)) return false;
    const std::uint64_t size = number_;
    if (!pad(wire::alignmentOf(element.front())) || size > bytes_.size() - at_ || size > wire::longest_array)
      return false;
    const wire::Bytes all = bytes_;
    const std::size_t end = at_ + static_cast<std::size_t>(size);
    bytes_ = bytes_.first(end);
    while (at_ < end) {
      if (!value(element, depth)) return false;
    }
    bytes_ = all;
    return true;
  }

  bool variant(unsigned depth) {
    if (!text(1) || !wire::isCompleteType(text_)) return false;
    return value(text_, depth);
  }

  wire::Bytes bytes_;
  const bool big_endian_;
  const Overlooked overlooked_;
  std::size_t at_ = 0;
  std::uint64_t number_ = 0;  // the last one read
  std::string_view text_;     // the last one read
};

}  // namespace

bool isBodyValidBut(const wire::Message& message, const Overlooked& overlooked) {
  LaxReader reader(message, overlooked);
  return reader.values(message.header.signature, 0) && reader.isAtEnd();
}

}  // namespace kelvane::fuzz
