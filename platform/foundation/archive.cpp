#include "platform/foundation/archive.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <utility>

#include "platform/foundation/archive_coding.h"

namespace kelvane {
namespace foundation {
namespace {

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

}  // namespace

// --- writing ---

/// Writes what a value holds, whatever it is.
struct Archiver::Objects {
  Archiver& to;

  void operator()(std::monostate) const { tag(tag_nothing); }
  void operator()(bool boolean) const { tag(boolean ? tag_true : tag_false); }
  void operator()(std::int64_t number) const {
    tag(tag_signed);
    to.signedNumber(number);
  }
  void operator()(std::uint64_t number) const {
    tag(tag_unsigned);
    to.number(number);
  }
  void operator()(double value) const {
    tag(tag_double);
    const auto bits = std::bit_cast<std::uint64_t>(value);
    for (unsigned shift = 0; shift < 64; shift += 8)
      to.out_.push_back(static_cast<std::uint8_t>(bits >> shift));
  }
  void operator()(const CopyOnWrite<std::string>& string) const {
    tag(tag_string);
    to.text(*string);
  }
  void operator()(const Data& data) const {
    tag(tag_data);
    to.number(data.bytes().size());
    to.bytes(data.bytes());
  }
  void operator()(Date date) const {
    tag(tag_date);
    to.signedNumber(date.microseconds);
  }
  void operator()(const Array& array) const {
    tag(tag_array);
    to.number(array.size());
    nested([&] {
      for (const Value& value : array) to.object(value);
    });
  }
  void operator()(const Dictionary& dictionary) const {
    tag(tag_dictionary);
    to.number(dictionary.size());
    nested([&] {
      for (const auto& [key, value] : dictionary) {
        to.text(key);
        to.object(value);
      }
    });
  }

 private:
  void tag(Tag tag) const { to.out_.push_back(tag); }

  template <class Fill>
  void nested(Fill fill) const {
    to.too_deep_ = to.too_deep_ || to.depth_ == archive_depth_limit;
    if (to.too_deep_) return;
    ++to.depth_;
    fill();
    --to.depth_;
  }
};

void Archiver::bytes(std::span<const std::uint8_t> bytes) {
  out_.insert(out_.end(), bytes.begin(), bytes.end());
}

void Archiver::object(const Value& value) { std::visit(Objects{*this}, value.held()); }

void Archiver::signedNumber(std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  number(bits << 1 ^ (value < 0 ? ~std::uint64_t{0} : 0));
}

void Archiver::number(std::uint64_t value) {
  for (; value >= 0x80; value >>= 7) out_.push_back(static_cast<std::uint8_t>(value | 0x80));
  out_.push_back(static_cast<std::uint8_t>(value));
}

void Archiver::text(std::string_view text) {
  number(text.size());
  out_.insert(out_.end(), text.begin(), text.end());
}

Data Archiver::finished() {
  if (too_deep_) out_.clear();
  return Data(std::move(out_));
}

// --- reading ---

std::span<const std::uint8_t> Unarchiver::bytes(std::size_t count) {
  if (count > left_.size()) fail();
  if (failed_) return {};
  const auto taken = left_.first(count);
  left_ = left_.subspan(count);
  return taken;
}

std::uint8_t Unarchiver::byte() {
  const auto taken = bytes(1);
  return failed_ ? 0 : taken[0];
}

Value Unarchiver::object() {
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
      fail();
      return {};
  }
}

/// At most ten bytes, and no more of them than the number needs.
std::uint64_t Unarchiver::number() {
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
  fail();
  return 0;
}

std::int64_t Unarchiver::signedNumber() {
  const std::uint64_t bits = number();
  return static_cast<std::int64_t>(bits >> 1 ^ ((bits & 1) != 0 ? ~std::uint64_t{0} : 0));
}

std::size_t Unarchiver::count(std::size_t each) {
  const std::uint64_t counted = number();
  if (counted > left_.size() / each) fail();
  return failed_ ? 0 : static_cast<std::size_t>(counted);
}

std::string Unarchiver::text() {
  const auto content = bytes(count(1));
  return {content.begin(), content.end()};
}

Data Unarchiver::data() {
  const auto content = bytes(count(1));
  return Data(Data::Bytes(content.begin(), content.end()));
}

double Unarchiver::real() {
  std::uint64_t bits = 0;
  for (unsigned shift = 0; shift < 64; shift += 8) bits |= std::uint64_t{byte()} << shift;
  return std::bit_cast<double>(bits);
}

Array Unarchiver::array() {
  const std::size_t size = count(1);
  Array elements;
  enter();
  for (std::size_t i = 0; i < size && !failed_; ++i) elements.append(object());
  --depth_;
  return elements;
}

Dictionary Unarchiver::dictionary() {
  const std::size_t size = count(2);
  Dictionary entries;
  std::string last;
  enter();
  for (std::size_t i = 0; i < size && !failed_; ++i) {
    std::string key = text();
    if (i != 0 && key <= last) fail();
    entries.set(key, object());
    last = std::move(key);
  }
  --depth_;
  return entries;
}

void Unarchiver::enter() {
  if (++depth_ > archive_depth_limit) fail();
}

}  // namespace foundation

namespace {

constexpr std::array<std::uint8_t, 4> header = {'K', 'V', 'A', 1};

}  // namespace

Data archivedData(const Value& value) {
  foundation::Archiver archiver;
  archiver.bytes(header);
  archiver.object(value);
  return archiver.finished();
}

Value unarchivedValue(std::span<const std::uint8_t> bytes) {
  foundation::Unarchiver archive(bytes);
  const auto first = archive.bytes(header.size());
  if (archive.failed() || !std::equal(header.begin(), header.end(), first.begin())) return {};
  Value value = archive.object();
  if (!archive.finished()) value = Value();
  return value;
}

}  // namespace kelvane
