#include "platform/foundation/archive.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <string_view>
#include <utility>

namespace kelvane {
namespace {

constexpr std::array<std::uint8_t, 4> header = {'K', 'V', 'A', 1};

enum Tag : std::uint8_t {
  tag_nothing,
  tag_false,
  tag_true,
  tag_signed,
  tag_unsigned,
  tag_string,
  tag_data,
  tag_date,
  tag_array,
  tag_dictionary,
  tag_double,
};

class Archiver {
 public:
  Data::Bytes archive(const Value& value) {
    out_.assign(header.begin(), header.end());
    object(value);
    if (too_deep_) out_.clear();
    return std::move(out_);
  }

 private:
  void object(const Value& value) {
    std::visit([this](const auto& held) { this->put(held); }, value.held());
  }

  void put(std::monostate) { out_.push_back(tag_nothing); }
  void put(bool boolean) { out_.push_back(boolean ? tag_true : tag_false); }
  void put(std::int64_t number) { signedNumber(tag_signed, number); }
  void put(std::uint64_t value) {
    out_.push_back(tag_unsigned);
    number(value);
  }
  void put(double value) {
    out_.push_back(tag_double);
    const auto bits = std::bit_cast<std::uint64_t>(value);
    for (unsigned shift = 0; shift < 64; shift += 8) out_.push_back(static_cast<std::uint8_t>(bits >> shift));
  }
  void put(const foundation::CopyOnWrite<std::string>& string) {
    out_.push_back(tag_string);
    text(*string);
  }
  void put(const Data& data) {
    out_.push_back(tag_data);
    number(data.bytes().size());
    out_.insert(out_.end(), data.bytes().begin(), data.bytes().end());
  }
  void put(Date date) { signedNumber(tag_date, date.microseconds); }
  void put(const Array& array) {
    out_.push_back(tag_array);
    number(array.size());
    nested([&] { std::for_each(array.begin(), array.end(), [this](const Value& v) { object(v); }); });
  }
  void put(const Dictionary& dictionary) {
    out_.push_back(tag_dictionary);
    number(dictionary.size());
    nested([&] {
      for (const auto& [key, value] : dictionary) {
        text(key);
        object(value);
      }
    });
  }

  template <class Fill>
  void nested(Fill fill) {
    too_deep_ = too_deep_ || depth_ == archive_depth_limit;
    if (too_deep_) return;
    ++depth_;
    fill();
    --depth_;
  }

  void signedNumber(Tag tag, std::int64_t value) {
    out_.push_back(tag);
    const auto bits = static_cast<std::uint64_t>(value);
    number(bits << 1 ^ (value < 0 ? ~std::uint64_t{0} : 0));
  }
  void number(std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) out_.push_back(static_cast<std::uint8_t>(value | 0x80));
    out_.push_back(static_cast<std::uint8_t>(value));
  }
  void text(std::string_view text) {
    number(text.size());
    out_.insert(out_.end(), text.begin(), text.end());
  }

  Data::Bytes out_;
  std::size_t depth_ = 0;
  bool too_deep_ = false;
};

/// Reads from the front of what is left. The first thing that is not what it should be is remembered; what is
/// read from then on means nothing, and the loops end.
class Unarchiver {
 public:
  explicit Unarchiver(std::span<const std::uint8_t> bytes) : left_(bytes) {}

  Value unarchive() {
    const auto first = take(header.size());
    if (failed_ || !std::equal(header.begin(), header.end(), first.begin())) return {};
    Value value = object();
    if (failed_ || !left_.empty()) value = Value();
    return value;
  }

 private:
  std::span<const std::uint8_t> take(std::size_t count) {
    if (count > left_.size()) failed_ = true;
    if (failed_) return {};
    const auto taken = left_.first(count);
    left_ = left_.subspan(count);
    return taken;
  }

  std::uint8_t byte() {
    const auto taken = take(1);
    return failed_ ? 0 : taken[0];
  }

  Value object() {
    switch (byte()) {
      case tag_false:
        return false;
      case tag_true:
        return true;
      case tag_signed:
        return signedNumber();
      case tag_unsigned:
        return number();
      case tag_string:
        return text();
      case tag_data:
        return data();
      case tag_date:
        return Date{signedNumber()};
      case tag_array:
        return array();
      case tag_dictionary:
        return dictionary();
      case tag_double:
        return real();
      default:
        failed_ = true;
        return {};
    }
  }

  /// At most ten bytes, and no more of them than the number needs.
  std::uint64_t number() {
    std::uint64_t result = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const std::uint8_t part = byte();
      const std::uint64_t bits = part & 0x7fU;
      if (bits << shift >> shift != bits) break;
      result |= bits << shift;
      if (part >= 0x80) continue;
      if (part == 0 && shift != 0) break;
      return result;
    }
    failed_ = true;
    return 0;
  }

  std::int64_t signedNumber() {
    const std::uint64_t bits = number();
    return static_cast<std::int64_t>(bits >> 1 ^ ((bits & 1) != 0 ? ~std::uint64_t{0} : 0));
  }

  /// A length or count that the bytes left can hold, when each of what is counted takes `each` of them or
  /// more.
  std::size_t count(std::size_t each) {
    const std::uint64_t counted = number();
    if (counted > left_.size() / each) failed_ = true;
    return failed_ ? 0 : static_cast<std::size_t>(counted);
  }

  std::string text() {
    const auto content = take(count(1));
    return {content.begin(), content.end()};
  }

  Data data() {
    const auto content = take(count(1));
    return Data(Data::Bytes(content.begin(), content.end()));
  }

  double real() {
    std::uint64_t bits = 0;
    for (unsigned shift = 0; shift < 64; shift += 8) bits |= std::uint64_t{byte()} << shift;
    return std::bit_cast<double>(bits);
  }

  Array array() {
    const std::size_t size = count(1);
    Array elements;
    enter();
    for (std::size_t i = 0; i < size && !failed_; ++i) elements.append(object());
    --depth_;
    return elements;
  }

  Dictionary dictionary() {
    const std::size_t size = count(2);
    Dictionary entries;
    std::string last;
    enter();
    for (std::size_t i = 0; i < size && !failed_; ++i) {
      std::string key = text();
      if (i != 0 && key <= last) failed_ = true;
      entries.set(key, object());
      last = std::move(key);
    }
    --depth_;
    return entries;
  }

  void enter() {
    if (++depth_ > archive_depth_limit) failed_ = true;
  }

  std::span<const std::uint8_t> left_;
  std::size_t depth_ = 0;
  bool failed_ = false;
};

}  // namespace

Data archivedData(const Value& value) { return Data(Archiver().archive(value)); }

Value unarchivedValue(std::span<const std::uint8_t> bytes) { return Unarchiver(bytes).unarchive(); }

}  // namespace kelvane
