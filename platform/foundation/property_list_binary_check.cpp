// A binary property list is a table of objects that refer to one another by index, so a small file can
// describe a tree of any size, or one without an end. The walk below visits what libplist will visit, in the
// same order, with a stack of its own, and stops at the first thing that is out of bounds. What always holds:
// `path_` is the chain of containers from the root to the object in hand, at most `limits.depth` long, and
// every read of `bytes_` goes through `number` or `payload`, which check it.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/foundation/property_list_check.h"

namespace kelvane::foundation {
namespace {

constexpr std::size_t header_size = 8;
constexpr std::size_t trailer_size = 32;

class BinaryCheck {
 public:
  BinaryCheck(std::span<const std::uint8_t> bytes, const PropertyListLimits& limits)
      : bytes_(bytes), limits_(limits) {}

  std::optional<std::string> run() {
    if (!readTrailer()) return error_;
    visit(root_, false);
    while (!path_.empty() && !error_) {
      Container& innermost = path_.back();
      if (innermost.next == innermost.references) {
        path_.pop_back();
      } else {
        const std::size_t which = innermost.next++;
        visit(number(innermost.at + which * reference_size_, reference_size_), which < innermost.keys);
      }
    }
    return error_;
  }

 private:
  struct Container {
    std::uint64_t object;
    std::size_t at;          // of the first reference
    std::size_t references;  // of a dictionary: the keys, then as many values
    std::size_t keys;
    std::size_t next;
  };

  void fail(std::string what) {
    if (!error_) error_ = std::move(what);
  }

  /// Big-endian, of at most 8 bytes; the caller has checked that they are there.
  [[nodiscard]] std::uint64_t number(std::size_t at, std::size_t size) const {
    std::uint64_t result = 0;
    for (std::size_t i = 0; i < size; ++i) result = result << 8 | bytes_[at + i];
    return result;
  }

  bool readTrailer() {
    if (bytes_.size() < header_size + trailer_size + 2) {
      fail("is too short for a binary property list");
      return false;
    }
    const std::size_t trailer = bytes_.size() - trailer_size;
    offset_size_ = bytes_[trailer + 6];
    reference_size_ = bytes_[trailer + 7];
    objects_ = number(trailer + 8, 8);
    root_ = number(trailer + 16, 8);
    const std::uint64_t table = number(trailer + 24, 8);
    const bool sizes = offset_size_ >= 1 && offset_size_ <= 8 && reference_size_ >= 1 && reference_size_ <= 8;
    const bool placed = table > header_size && table < trailer;
    if (!sizes || !placed || objects_ == 0 ||
        objects_ > (trailer - table) / std::max<std::size_t>(offset_size_, 1)) {
      fail("has a damaged trailer: its object table does not fit the file");
      return false;
    }
    table_ = static_cast<std::size_t>(table);
    return true;
  }

  void visit(std::uint64_t object, bool as_key) {
    if (object >= objects_) return fail(fmt::format("refers to object {} of {}", object, objects_));
    if (++visited_ > limits_.objects) return fail(fmt::format("holds more than {} objects", limits_.objects));
    const std::uint64_t offset =
        number(table_ + static_cast<std::size_t>(object) * offset_size_, offset_size_);
    if (offset < header_size || offset >= table_)
      return fail(fmt::format("object {} lies outside the file", object));
    const auto at = static_cast<std::size_t>(offset);
    const unsigned kind = bytes_[at] >> 4;
    if (as_key && kind != 0x5 && kind != 0x6) return fail("has a dictionary key that is no string");
    check(object, at, kind, bytes_[at] & 0xfU);
  }

  void check(std::uint64_t object, std::size_t at, unsigned kind, unsigned low) {
    switch (kind) {
      case 0x0:
        return checkSingle(low);
      case 0x1:
        return checkInteger(at, low);
      case 0x2:
        return low == 2 || low == 3 ? require(at + 1, std::size_t{1} << low)
                                    : fail("holds a real of an odd size");
      case 0x3:
        return low == 3 ? require(at + 1, 8) : fail("holds a date of an odd size");
      case 0x8:
        return low < 8 ? require(at + 1, low + 1) : fail("holds a UID of more than 8 bytes");
      default:
        return checkSized(object, at, kind, low);
    }
  }

  void checkSingle(unsigned low) {
    if (low == 0) return fail("holds a null object");
    if (low != 8 && low != 9) fail("holds an object of an unknown kind");
  }

  void checkInteger(std::size_t at, unsigned low) {
    if (low > 4) return fail("holds an integer of more than 16 bytes");
    require(at + 1, std::size_t{1} << low);
    if (low == 4 && !error_ && number(at + 1, 8) != 0) fail("holds an integer that does not fit 64 bits");
  }

  /// Kinds whose marker is followed by a count: in its low bits, or as an integer object when these are all
  /// set.
  void checkSized(std::uint64_t object, std::size_t at, unsigned kind, unsigned low) {
    std::size_t start = at + 1;
    std::uint64_t count = low;
    if (low == 0xf) {
      const unsigned size_marker = start < table_ ? bytes_[start] : 0;
      if (size_marker >> 4 != 1 || (size_marker & 0xfU) > 3) return fail("has an object with a damaged size");
      const std::size_t size = std::size_t{1} << (size_marker & 0xfU);
      require(start + 1, size);
      if (error_) return;
      count = number(start + 1, size);
      start += 1 + size;
    }
    if (count > bytes_.size()) return fail("has an object that is larger than the file");
    checkContents(object, start, static_cast<std::size_t>(count), kind);
  }

  void checkContents(std::uint64_t object, std::size_t start, std::size_t count, unsigned kind) {
    switch (kind) {
      case 0x4:
        return payload(start, count);
      case 0x5:
        payload(start, count);
        return error_ ? void() : checkBytesText(start, count);
      case 0x6:
        payload(start, count * 2);
        return error_ ? void() : checkUTF16(start, count);
      case 0xa:
      case 0xc:
        return enter({object, start, count, 0, 0});
      case 0xd:
        return enter({object, start, count * 2, count, 0});
      default:
        return fail("holds an object of an unknown kind");
    }
  }

  void require(std::size_t start, std::size_t size) {
    if (start > table_ || size > table_ - start) fail("is cut off: an object ends outside the file");
  }

  void payload(std::size_t start, std::size_t size) {
    require(start, size);
    expanded_ += size;
    if (expanded_ > limits_.expanded_bytes) {
      fail(fmt::format("holds more than {} bytes of strings and data once expanded", limits_.expanded_bytes));
    }
  }

  void checkBytesText(std::size_t start, std::size_t count) {
    if (count != 0 && std::memchr(bytes_.data() + start, 0, count) != nullptr)
      fail("has a string with a NUL in it");
  }

  void checkUTF16(std::size_t start, std::size_t units) {
    for (std::size_t i = 0; i < units; ++i) {
      const std::uint64_t unit = number(start + i * 2, 2);
      if (unit == 0) return fail("has a string with a NUL in it");
      if (unit < 0xd800 || unit > 0xdfff) continue;
      const std::uint64_t second = i + 1 < units ? number(start + (i + 1) * 2, 2) : 0;
      if (unit > 0xdbff || second < 0xdc00 || second > 0xdfff)
        return fail("has a string that is not valid UTF-16");
      ++i;
    }
  }

  void enter(Container container) {
    require(container.at, container.references * reference_size_);
    if (error_) return;
    const auto same = [&](const Container& outer) { return outer.object == container.object; };
    if (std::any_of(path_.begin(), path_.end(), same)) {
      return fail(fmt::format("object {} contains itself", container.object));
    }
    if (path_.size() >= limits_.depth) return fail(fmt::format("is nested deeper than {}", limits_.depth));
    path_.push_back(container);
  }

  const std::span<const std::uint8_t> bytes_;
  const PropertyListLimits& limits_;
  std::size_t offset_size_ = 0;
  std::size_t reference_size_ = 0;
  std::uint64_t objects_ = 0;
  std::uint64_t root_ = 0;
  std::size_t table_ = 0;
  std::vector<Container> path_;
  std::size_t visited_ = 0;
  std::size_t expanded_ = 0;
  std::optional<std::string> error_;
};

}  // namespace

std::optional<std::string> checkBinaryPropertyList(std::span<const std::uint8_t> bytes,
                                                   const PropertyListLimits& limits) {
  return BinaryCheck(bytes, limits).run();
}

}  // namespace kelvane::foundation
