#include "platform/foundation/property_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

#include "platform/foundation/plist_node.h"
#include "platform/foundation/property_list_check.h"
#include "platform/foundation/utf8.h"

namespace kelvane {
namespace {

using foundation::PlistMemory;
using foundation::PlistNode;

constexpr std::int64_t seconds_from_1970_to_2001 = 978307200;
/// Dates this many seconds from 2001 or more do not fit a count of microseconds.
constexpr double date_limit = 9.2e12;

/// Turns a tree of libplist's into a Value. The tree's depth and size are bounded by the checks before.
class Reader {
 public:
  PropertyListResult read(plist_t root) {
    PropertyListResult result{value(root), {}};
    if (error_) result = {{}, error_};
    return result;
  }

 private:
  Value fail(std::string what) {
    if (!error_) error_ = std::move(what);
    return {};
  }

  Value value(plist_t node) {
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN:
        return boolean(node);
      case PLIST_UINT:
        return integer(node);
      case PLIST_REAL:
        return real(node);
      case PLIST_STRING:
      case PLIST_KEY:
        return string(node);
      case PLIST_ARRAY:
        return array(node);
      case PLIST_DICT:
        return dictionary(node);
      case PLIST_DATE:
        return date(node);
      case PLIST_DATA:
        return data(node);
      case PLIST_UID:
        return uid(node);
      default:
        return {};
    }
  }

  static Value boolean(plist_t node) {
    std::uint8_t boolean = 0;
    plist_get_bool_val(node, &boolean);
    return boolean != 0;
  }

  /// libplist hands out the 64 bits but not whether they are signed. It keeps that as the width, 8 or 16
  /// bytes, which its comparison looks at; the integers it makes itself are signed.
  static Value integer(plist_t node) {
    std::uint64_t bits = 0;
    plist_get_uint_val(node, &bits);
    const PlistNode as_signed(plist_new_uint(bits));
    if (plist_compare_node_value(node, as_signed.get()) != 0) return static_cast<std::int64_t>(bits);
    return bits;
  }

  static Value real(plist_t node) {
    double number = 0;
    plist_get_real_val(node, &number);
    return number;
  }

  static Value uid(plist_t node) {
    std::uint64_t number = 0;
    plist_get_uid_val(node, &number);
    return number;
  }

  Value string(plist_t node) {
    std::uint64_t length = 0;
    const char* const text = plist_get_string_ptr(node, &length);
    const std::string_view all(text == nullptr ? "" : text, text == nullptr ? 0 : length);
    if (!isMessageText(all)) return fail("has a string that is not valid UTF-8");
    return all;
  }

  static Value data(plist_t node) {
    std::uint64_t length = 0;
    const char* const bytes = plist_get_data_ptr(node, &length);
    if (bytes == nullptr || length == 0) return Data();
    Data::Bytes copy(length);
    std::memcpy(copy.data(), bytes, length);
    return Data(std::move(copy));
  }

  /// libplist hands out the seconds as 32 bits, which end in 2069. The binary form of the node has them all:
  /// a header of 8 bytes, a marker, the seconds since 2001 as a big-endian double.
  Value date(plist_t node) {
    char* written = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &written, &length);
    const PlistMemory<char> owner(written);
    if (written == nullptr || length < 17 || static_cast<std::uint8_t>(written[8]) != 0x33) {
      return fail("has a date that cannot be read");
    }
    std::uint64_t bits = 0;
    for (std::size_t i = 9; i < 17; ++i) bits = bits << 8 | static_cast<std::uint8_t>(written[i]);
    const auto seconds = std::bit_cast<double>(bits);
    if (!(std::abs(seconds) < date_limit)) return fail("has a date that is out of range");
    const double whole = std::floor(seconds);
    const auto fraction = static_cast<std::int64_t>(std::lround((seconds - whole) * 1e6));
    return Date{(static_cast<std::int64_t>(whole) + seconds_from_1970_to_2001) * 1'000'000 + fraction};
  }

  Value array(plist_t node) {
    void* position = nullptr;
    plist_array_new_iter(node, &position);
    const PlistMemory<void> owner(position);
    Array elements;
    for (;;) {
      plist_t element = nullptr;
      plist_array_next_item(node, position, &element);
      if (element == nullptr || error_) return elements;
      elements.append(value(element));
    }
  }

  Value dictionary(plist_t node) {
    void* position = nullptr;
    plist_dict_new_iter(node, &position);
    const PlistMemory<void> owner(position);
    Dictionary entries;
    for (;;) {
      char* key = nullptr;
      plist_t entry = nullptr;
      plist_dict_next_item(node, position, &key, &entry);
      const PlistMemory<char> key_owner(key);
      if (key == nullptr || entry == nullptr || error_) return entries;
      if (!isMessageText(key)) return fail("has a key that is not valid UTF-8");
      entries.set(key, value(entry));
    }
  }

  std::optional<std::string> error_;
};

PropertyListResult failed(std::string what) { return {{}, std::move(what)}; }

PropertyListResult readNode(plist_t parsed) {
  const PlistNode root(parsed);
  if (root == nullptr) return failed("is not a well-formed property list");
  return Reader().read(root.get());
}

PropertyListResult readBinary(std::span<const std::uint8_t> bytes, const PropertyListLimits& limits) {
  if (auto wrong = foundation::checkBinaryPropertyList(bytes, limits)) return failed(std::move(*wrong));
  plist_t parsed = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<std::uint32_t>(bytes.size()),
                 &parsed);
  return readNode(parsed);
}

PropertyListResult readXML(std::string_view text, const PropertyListLimits& limits) {
  if (!isMessageText(text)) return failed("is not valid UTF-8 without NUL bytes");
  if (auto wrong = foundation::checkXMLPropertyList(text, limits)) return failed(std::move(*wrong));
  plist_t parsed = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &parsed);
  return readNode(parsed);
}

}  // namespace

PropertyListResult propertyListWithData(std::span<const std::uint8_t> bytes,
                                        const PropertyListLimits& limits) {
  if (bytes.empty()) return failed("is empty");
  // libplist counts bytes in 32 bits.
  const std::size_t cap = std::min<std::size_t>(limits.bytes, std::numeric_limits<std::uint32_t>::max());
  if (bytes.size() > cap) return failed(fmt::format("is larger than {} bytes", cap));
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.starts_with("bplist00")) return readBinary(bytes, limits);
  if (text.starts_with("bplist")) return failed("is a binary property list of an unknown version");
  if (text.starts_with("\xef\xbb\xbf")) text.remove_prefix(3);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos || text[first] != '<') {
    return failed("is neither an XML nor a binary property list");
  }
  return readXML(text, limits);
}

PropertyListResult propertyListWithData(const Data& data, const PropertyListLimits& limits) {
  return propertyListWithData(std::span<const std::uint8_t>(data.bytes()), limits);
}

}  // namespace kelvane
